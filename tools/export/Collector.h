#ifndef METRICS_TOOLS_EXPORT_COLLECTOR_H
#define METRICS_TOOLS_EXPORT_COLLECTOR_H

#include "Otlp.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Metrics::tools {

/// What a collector is asked for, and how.
struct CollectorOptions {
    std::string url;                  ///< without or with the path of its traces
    std::vector<std::string> headers; ///< "Name: value"
    OtlpEncoding encoding = OtlpEncoding::Protobuf;
    bool isCompressed = true;
    double timeout = 10; ///< seconds for one request
};

/// The address that requests go to.
std::string TracesUrl(const std::string& url);

/// Posts requests to a collector by HTTP, over one connection for as long as that lasts.
///
/// Thread-safety: one thread at a time for each object.
class Collector {
public:
    struct Answer {
        long status = 0;        ///< 0: there was none
        std::string problem;    ///< why there was none, or what the collector says to it
        double retryAfter = -1; ///< seconds; negative when it says nothing
        OtlpAnswer accepted;    ///< when the status says so

        bool IsAccepted() const { return status >= 200 && status < 300; }
        /// The same request may be accepted later.
        bool IsForLater() const {
            return status == 0 || status == 429 || status == 502 || status == 503 || status == 504;
        }
    };

    /// @param isAborted asked now and then while a request is under way, on the thread that posts.
    /// @throws std::runtime_error for a URL that is none.
    Collector(const CollectorOptions& options, std::function<bool()> isAborted);
    ~Collector();
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    Answer Post(const std::string& request);

private:
    struct Connection;
    std::unique_ptr<Connection> m_connection;
};

} // namespace Metrics::tools

#endif // METRICS_TOOLS_EXPORT_COLLECTOR_H
