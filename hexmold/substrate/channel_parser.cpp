/// @file  substrate/channel_parser.cpp
/// @brief Channel selection patterns.
#include <hexmold/substrate/channel_parser.h>

#include <cctype>

namespace TVL::Utils {

bool globMatch(Quillon::StringView p, Quillon::StringView s)
{
    // Greedy match with one backtrack point at the last `*`: linear in practice, no recursion.
    std::size_t pi = 0, si = 0, star = Quillon::StringView::npos, mark = 0;
    while (si < s.size()) {
        if (pi < p.size() && (p[pi] == '?' || p[pi] == s[si])) {
            ++pi;
            ++si;
        } else if (pi < p.size() && p[pi] == '*') {
            star = pi++;
            mark = si;
        } else if (star != Quillon::StringView::npos) {
            pi = star + 1;
            si = ++mark;
        } else {
            return false;
        }
    }
    while (pi < p.size() && p[pi] == '*')
        ++pi;
    return pi == p.size();
}

Status ChannelParser::parses(Quillon::StringView pattern)
{
    mInclude.clear();
    mExclude.clear();
    mValid = false;
    std::size_t i = 0;
    while (i < pattern.size()) {
        auto const isSep = [](char c) {
            return c == ',' || std::isspace(static_cast<unsigned char>(c));
        };
        while (i < pattern.size() && isSep(pattern[i]))
            ++i;
        std::size_t const start = i;
        while (i < pattern.size() && !isSep(pattern[i]))
            ++i;
        if (start == i)
            break;
        Quillon::StringView term = pattern.substr(start, i - start);
        bool const exclude = term.front() == '^';
        if (exclude)
            term.remove_prefix(1);
        if (term.empty())
            return Status::error("channel pattern: '^' must be followed by a name (at position " +
                                 std::to_string(start) + ")");
        if (term.find('^') != Quillon::StringView::npos)
            return Status::error("channel pattern: '^' may only begin a term, in '" +
                                 Quillon::String(pattern.substr(start, i - start)) + "'");
        (exclude ? mExclude : mInclude).emplace_back(term);
    }
    mValid = true;
    return Status::success();
}

bool ChannelParser::accepts(Quillon::StringView name) const
{
    if (!mValid)
        return false;
    for (auto const& e : mExclude)
        if (globMatch(e, name))
            return false;
    if (mInclude.empty())
        return !mExclude.empty();
    for (auto const& t : mInclude)
        if (globMatch(t, name))
            return true;
    return false;
}

} // namespace TVL::Utils
