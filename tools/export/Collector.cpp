#include "Collector.h"

#include <curl/curl.h>
#include <zlib.h>

#include <algorithm>
#include <cctype>
#include <limits>
#include <stdexcept>
#include <utility>

namespace Metrics::tools {

namespace {

constexpr std::size_t longestAnswer = 1 << 20;

/// As gzip does it, for speed.
std::string Compress(const std::string& text) {
    z_stream stream{};
    constexpr int withHeader = 15 + 16;
    if (deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, withHeader, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::runtime_error("cannot compress");
    std::string out(deflateBound(&stream, text.size()), '\0');
    // zlib does not write to its input.
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return out;
}

/// What of an answer can be shown in one line.
std::string Shown(std::string_view text) {
    constexpr std::size_t most = 200;
    std::string shown(text.substr(0, most));
    std::replace_if(
        shown.begin(), shown.end(),
        [](char c) { return std::isprint(static_cast<unsigned char>(c)) == 0; }, ' ');
    return shown;
}

} // namespace

std::string TracesUrl(const std::string& url) {
    constexpr std::string_view path = "/v1/traces";
    std::string traces = url;
    while (traces.ends_with('/'))
        traces.pop_back();
    if (!traces.ends_with(path))
        traces += path;
    return traces;
}

struct Collector::Connection {
    explicit Connection(std::function<bool()> abort) : isAborted(std::move(abort)) {}
    ~Connection() {
        curl_slist_free_all(headers);
        curl_easy_cleanup(handle);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void AddHeader(const std::string& header) {
        headers = curl_slist_append(headers, header.c_str());
    }

    static std::size_t TakeBody(char* data, std::size_t, std::size_t size, void* connection) {
        std::string& body = static_cast<Connection*>(connection)->body;
        body.append(data, std::min(size, longestAnswer - body.size()));
        return size;
    }

    static int Watch(void* connection, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
        return static_cast<Connection*>(connection)->isAborted() ? 1 : 0;
    }

    CURL* handle = curl_easy_init();
    curl_slist* headers = nullptr;
    std::function<bool()> isAborted;
    std::string body; ///< of the answer
    bool isJson = false;
    bool isCompressed = true;
};

Collector::Collector(const CollectorOptions& options, std::function<bool()> isAborted)
    : m_connection(std::make_unique<Connection>(std::move(isAborted))) {
    Connection& connection = *m_connection;
    CURL* const handle = connection.handle;
    if (handle == nullptr)
        throw std::runtime_error("libcurl cannot be used");
    if (!options.url.starts_with("http://") && !options.url.starts_with("https://"))
        throw std::runtime_error("not the address of a collector: '" + options.url + "'");
    connection.isJson = options.encoding == OtlpEncoding::Json;
    connection.isCompressed = options.isCompressed;
    connection.AddHeader(connection.isJson ? "Content-Type: application/json"
                                           : "Content-Type: application/x-protobuf");
    if (options.isCompressed)
        connection.AddHeader("Content-Encoding: gzip");
    connection.AddHeader("Expect:"); // no round trip to ask whether the body is welcome
    for (const std::string& header : options.headers)
        connection.AddHeader(header);
    const auto milliseconds = static_cast<long>(options.timeout * 1000);
    curl_easy_setopt(handle, CURLOPT_URL, TracesUrl(options.url).c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "metrics/" METRICS_TOOLS_VERSION);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, connection.headers);
    curl_easy_setopt(handle, CURLOPT_POST, 1L);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, milliseconds);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Connection::TakeBody);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &connection);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &Connection::Watch);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &connection);
}

Collector::~Collector() = default;

Collector::Answer Collector::Post(const std::string& request) {
    Connection& connection = *m_connection;
    CURL* const handle = connection.handle;
    const std::string compressed = connection.isCompressed ? Compress(request) : std::string();
    const std::string& body = connection.isCompressed ? compressed : request;
    connection.body.clear();
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));

    Answer answer;
    const CURLcode result = curl_easy_perform(handle);
    if (result != CURLE_OK) {
        answer.problem = curl_easy_strerror(result);
        return answer;
    }
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &answer.status);
    curl_off_t seconds = 0;
    if (curl_easy_getinfo(handle, CURLINFO_RETRY_AFTER, &seconds) == CURLE_OK && seconds > 0)
        answer.retryAfter = static_cast<double>(seconds);
    if (!answer.IsAccepted()) {
        answer.problem = "HTTP " + std::to_string(answer.status);
        if (!connection.body.empty())
            answer.problem += ": " + Shown(connection.body);
        return answer;
    }
    const char* type = nullptr;
    curl_easy_getinfo(handle, CURLINFO_CONTENT_TYPE, &type);
    const bool isJson = type == nullptr
                            ? connection.isJson
                            : std::string_view(type).find("json") != std::string_view::npos;
    answer.accepted = ReadOtlpAnswer(connection.body, isJson);
    answer.accepted.message = Shown(answer.accepted.message);
    return answer;
}

} // namespace Metrics::tools
