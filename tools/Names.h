#ifndef METRICS_TOOLS_NAMES_H
#define METRICS_TOOLS_NAMES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Metrics::tools {

using NameId = std::uint32_t;
constexpr NameId noName = std::numeric_limits<NameId>::max();

/// Keeps texts, none of which moves as long as the arena lives.
class TextArena {
public:
    std::string_view Keep(std::string_view text) {
        if (text.empty())
            return {};
        if (text.size() > m_room) {
            const std::size_t size = text.size() > blockSize ? text.size() : blockSize;
            m_blocks.push_back(std::make_unique_for_overwrite<char[]>(size));
            m_next = m_blocks.back().get();
            m_room = size;
        }
        char* const begin = m_next;
        std::memcpy(begin, text.data(), text.size());
        m_next += text.size();
        m_room -= text.size();
        return {begin, text.size()};
    }

private:
    static constexpr std::size_t blockSize = 1 << 18;

    std::vector<std::unique_ptr<char[]>> m_blocks;
    char* m_next = nullptr;
    std::size_t m_room = 0;
};

/// Gives every text a number, the same text the same number.
class Names {
public:
    NameId Add(std::string_view text) {
        const auto found = m_ids.find(text);
        if (found != m_ids.end())
            return found->second;
        const auto id = static_cast<NameId>(m_texts.size());
        m_texts.push_back(m_arena.Keep(text));
        m_ids.emplace(m_texts.back(), id);
        return id;
    }

    /// @return noName for a text that was never added.
    NameId Find(std::string_view text) const {
        const auto found = m_ids.find(text);
        return found == m_ids.end() ? noName : found->second;
    }

    /// @return the text; nothing for noName.
    std::string_view operator[](NameId id) const {
        return id == noName ? std::string_view() : m_texts[id];
    }

    std::size_t Size() const { return m_texts.size(); }

private:
    TextArena m_arena;
    std::vector<std::string_view> m_texts;
    std::unordered_map<std::string_view, NameId> m_ids;
};

} // namespace Metrics::tools

#endif // METRICS_TOOLS_NAMES_H
