#ifndef METRICS_TOOLS_EXPORT_TABLE_H
#define METRICS_TOOLS_EXPORT_TABLE_H

#include "Span.h"

#include <string>
#include <vector>

namespace Metrics::tools {

/// Writes all runs as two tables for SQL engines, `<name>.spans.csv` and `<name>.events.csv`; their
/// columns are told in docs/sql.md. Times are nanoseconds since 1970; what is not in the file, such
/// as the end of what was open at the end, is an empty field.
/// @param identities of the runs, in their order.
/// @throws std::runtime_error when a file cannot be written.
void WriteTables(const Model& model, const std::vector<RunIdentity>& identities,
                 const std::string& name);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_EXPORT_TABLE_H
