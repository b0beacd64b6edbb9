#include "SentState.h"

#include "Text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <iterator>
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

SentState::SentState(const std::string& path, std::string collector)
    : m_path(path.empty() ? path : path + ".sent"), m_collector(std::move(collector)) {}

void SentState::Load(const TraceId& run) {
    m_run.clear();
    AppendHex(m_run, run.high);
    AppendHex(m_run, run.low);
    m_numbers.clear();
    m_open.clear();
    if (m_path.empty())
        return;
    const Json json = ReadObject(m_path);
    const auto collectors = json.find("collectors");
    if (json.value("run", Json()) != m_run || collectors == json.end() ||
        !collectors->is_object() || !collectors->contains(m_collector))
        return;
    const Json& mine = (*collectors)[m_collector];
    if (!mine.is_object())
        return;
    for (const Json& row : mine.value("spans", Json::array()))
        if (row.is_array() && row.size() == 2 && row[0].is_number_unsigned() &&
            row[1].is_number_unsigned())
            m_numbers[row[0].get<std::uint64_t>()] = row[1].get<std::uint64_t>();
    for (const Json& item : mine.value("open", Json::array())) {
        const std::string text = item.is_string() ? item.get<std::string>() : std::string();
        SpanId id = 0;
        std::from_chars(text.data(), text.data() + text.size(), id, 16);
        m_open.insert(id);
    }
}

bool SentState::Has(SpanId id, std::uint64_t number) const {
    if (m_open.contains(id))
        return true;
    const auto behind = m_numbers.upper_bound(number);
    return behind != m_numbers.begin() && number <= std::prev(behind)->second;
}

void SentState::Add(SpanId id, std::uint64_t number) {
    if (number == 0) {
        m_open.insert(id);
        return;
    }
    const auto behind = m_numbers.upper_bound(number);
    auto row = behind;
    if (behind != m_numbers.begin() && std::prev(behind)->second + 1 >= number) {
        row = std::prev(behind);
        row->second = std::max(row->second, number);
    } else {
        row = m_numbers.emplace_hint(behind, number, number);
    }
    if (behind != m_numbers.end() && row->second + 1 >= behind->first) {
        row->second = behind->second;
        m_numbers.erase(behind);
    }
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
    Json rows = Json::array();
    for (const auto& [first, last] : m_numbers)
        rows.push_back(Json::array({first, last}));
    json["collectors"][m_collector] = {{"spans", std::move(rows)}, {"open", std::move(open)}};
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
