#ifndef METRICS_TOOLS_VIEW_VIEWS_H
#define METRICS_TOOLS_VIEW_VIEWS_H

#include "../analysis/Check.h"
#include "../analysis/Diff.h"
#include "../analysis/Report.h"
#include "../analysis/Slow.h"
#include "../analysis/Top.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <iosfwd>

/// Results as text for people, and as JSON for programs. Nothing is computed here.
namespace Metrics::tools {

struct Style {
    bool colors = false;
    std::size_t width = 100;   ///< of the terminal, in columns
    std::size_t mostRows = 20; ///< of a table; 0 for all
    bool withEvents = false;   ///< attributes and events too
};

void PrintText(std::ostream& out, const Report& report, const Names& names, const Style& style);
void PrintText(std::ostream& out, const std::vector<ContextTree>& trees, const Names& names,
               const Style& style);
void PrintText(std::ostream& out, const Diff& diff, const Names& names, const Style& style);
void PrintText(std::ostream& out, const Check& check, const Names& names, const Style& style);
void PrintText(std::ostream& out, const Top& top, const Style& style);

/// The keys stand in the order in which docs/metrics-command.md describes them.
using Json = nlohmann::ordered_json;

Json ToJson(const Report& report, const Names& names);
Json ToJson(const std::vector<ContextTree>& trees, const Names& names, bool withEvents);
Json ToJson(const Diff& diff, const Names& names);
Json ToJson(const Check& check, const Names& names);
Json ToJson(const Top& top);

} // namespace Metrics::tools

#endif // METRICS_TOOLS_VIEW_VIEWS_H
