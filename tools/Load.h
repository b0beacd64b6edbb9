#ifndef METRICS_TOOLS_LOAD_H
#define METRICS_TOOLS_LOAD_H

#include "Model.h"

#include <functional>
#include <string>
#include <vector>

namespace Metrics::tools {

/// What becomes of problems and of the time that reading takes. All of them are called on the
/// thread that loads.
struct LoadObserver {
    std::function<void(const std::string& message)> problem = [](const std::string&) {};
    /// Now and then; the share of the file that was read, negative when that is not known.
    std::function<void(const std::string& path, double share)> progress = [](const std::string&,
                                                                             double) {};
};

/// Reads the files into one model. A file that cannot be read is a problem, and becomes no run; of
/// one that breaks off becomes a run what could be read.
Model Load(const std::vector<std::string>& paths, const LoadObserver& observer = {});

/// Tells of what could not be used of a file, in a few lines.
void TellDamage(const std::string& path, const Damage& damage,
                const std::function<void(const std::string&)>& problem);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_LOAD_H
