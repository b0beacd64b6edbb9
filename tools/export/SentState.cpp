#include "SentState.h"

#include "Text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <system_error>
#include <utility>

namespace Metrics::tools {

namespace {

using Json = nlohmann::json;

/// @return an empty object for what is not there, or is something else.
Json ReadObject(const std::string& path) {
    std::ifstream file(path);
    Json json = Json::parse(file, nullptr, false);
    return json.is_object() ? json : Json::object();
}

} // namespace

SentState::SentState(std::string path, std::string collector)
    : m_path(path.empty() ? path : path + ".sent"), m_collector(std::move(collector)) {}

void SentState::Load(const TraceId& run) {
    m_run.clear();
    AppendHex(m_run, run.high);
    AppendHex(m_run, run.low);
    m_spans = 0;
    m_open.clear();
    if (m_path.empty())
        return;
    const Json json = ReadObject(m_path);
    const auto collectors = json.find("collectors");
    if (json.value("run", Json()) != m_run || collectors == json.end() ||
        !collectors->is_object() || !collectors->contains(m_collector))
        return;
    const Json& mine = (*collectors)[m_collector];
    if (!mine.is_object() || !mine.value("spans", Json()).is_number_unsigned())
        return;
    m_spans = mine["spans"].get<std::uint64_t>();
    for (const Json& item : mine.value("open", Json::array())) {
        const std::string text = item.is_string() ? item.get<std::string>() : std::string();
        SpanId id = 0;
        std::from_chars(text.data(), text.data() + text.size(), id, 16);
        m_open.insert(id);
    }
}

void SentState::Add(SpanId id, std::uint64_t number) {
    if (number == 0)
        m_open.insert(id);
    m_spans = std::max(m_spans, number);
}

std::string SentState::Save() const {
    if (m_path.empty())
        return {};
    Json json = ReadObject(m_path);
    if (json.value("run", Json()) != m_run || !json.value("collectors", Json()).is_object())
        json = {{"run", m_run}, {"collectors", Json::object()}};
    Json open = Json::array();
    for (const SpanId id : m_open) {
        std::string text;
        AppendHex(text, id);
        open.push_back(std::move(text));
    }
    json["collectors"][m_collector] = {{"spans", m_spans}, {"open", std::move(open)}};
    const std::string fresh = m_path + ".new";
    errno = 0;
    {
        std::ofstream file(fresh, std::ios::trunc);
        file << json.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
        file.close();
        if (file && std::rename(fresh.c_str(), m_path.c_str()) == 0)
            return {};
    }
    const int error = errno;
    std::remove(fresh.c_str());
    return "cannot write " + m_path + ": " + std::generic_category().message(error);
}

} // namespace Metrics::tools
