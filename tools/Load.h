#ifndef METRICS_TOOLS_LOAD_H
#define METRICS_TOOLS_LOAD_H

#include "Model.h"

#include <string>
#include <vector>

namespace Metrics::tools {

/// Reads the files into one model.
/// @throws ReadError
Model Load(const std::vector<std::string>& paths);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_LOAD_H
