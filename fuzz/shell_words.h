// Whether a command line is what its template formats to, each text kept in its place. Lines
// split into words as the shell does: '...' quotes all, a backslash the next character, blanks
// end a word, ; & | < > ( ) make an operator (a run of them is one) as does a newline, a '#'
// starting a word starts a comment; an expansion ($ `), a double quote or an unterminated quote
// or escape fails. In a template %s is a text, %d a number, %a an address. A text's characters
// reach the command as they are: quoted, or no pattern character (* ? [ ] { }) nor a '~' the shell
// expands (at a word's start, after = or : in an assignment), and no '-' starting the word.
#pragma once

#include "fuzz_common.h"

#include <cctype>

namespace shell_words {

// A word's characters, each +256 when quoted; an operator's negative.
using word = std::vector<int>;

// Whether c is an unquoted character of set.
inline bool one_of(const char *set, int c) {
    return c > 0 && c < 256 && strchr(set, c) != nullptr;
}

inline bool split(const std::string &s, std::vector<word> &out) {
    bool in = false; // whether out.back() is a word still open
    auto open = [&]() -> word & {
        if (!std::exchange(in, true))
            out.emplace_back();
        return out.back();
    };
    auto at = [&](size_t i, int quoted) { return static_cast<unsigned char>(s[i]) + quoted; };
    for (size_t i = 0; i < s.size(); ++i) {
        const char c = s[i];
        if (c == ' ' || c == '\t') {
            in = false;
        } else if (one_of(";&|<>()\n", c)) {
            in = false;
            out.push_back({-c});
            while (c != '\n' && i + 1 < s.size() && one_of(";&|<>()", s[i + 1]))
                out.back().push_back(-s[++i]);
        } else if (c == '#' && !in) {
            i = s.find('\n', i) - 1; // to the newline, or past the end
        } else if (c == '\\' && i + 1 < s.size()) {
            open().push_back(at(++i, 256));
        } else if (c == '\'' && s.find('\'', i + 1) != std::string::npos) {
            for (word &w = open(); s[++i] != '\'';)
                w.push_back(at(i, 256));
        } else if (one_of("$`\"\\'", c)) {
            return false; // an expansion, a double quote, or an unterminated quote or escape
        } else {
            open().push_back(at(i, 0));
        }
    }
    return true;
}

// Whether w[i] may stand in the place of a placeholder %p that starts at w[from].
inline bool fits(char p, const word &w, size_t i, size_t from) {
    const int c = w[i] & 255;
    if (w[i] < 0 || (p == 's' && i == 0 && c == '-'))
        return false;
    if (p != 's')
        return isdigit(c) || c == (p == 'a' ? '.' : i == from ? '-' : -1);
    auto name = [](int ch) { return ch == '_' || (ch >= 0 && ch < 128 && isalnum(ch)); };
    const size_t n = std::find_if_not(w.begin(), w.end(), name) - w.begin(); // NAME= assigns
    const bool assignment = n > 0 && n < w.size() && w[n] == '=' && !isdigit(w[0]);
    return !one_of("*?[]{}", w[i]) &&
           (w[i] != '~' || (i > 0 && !(assignment && one_of("=:", w[i - 1]))));
}

// Whether w[wi..] is what the template word t[ti..] formats to.
inline bool match(const word &t, size_t ti, const word &w, size_t wi) {
    if (ti == t.size())
        return wi == w.size();
    if ((t[ti] & 255) != '%' || ti + 1 == t.size() || !one_of("sda", t[ti + 1] & 255))
        return wi < w.size() && w[wi] == t[ti] && match(t, ti + 1, w, wi + 1);
    const char p = static_cast<char>(t[ti + 1] & 255);
    for (size_t end = wi;; ++end) {
        if (end > wi && !fits(p, w, end - 1, wi))
            return false;
        if ((end > wi || p == 's') && match(t, ti + 2, w, end))
            return true;
        if (end == w.size())
            return false;
    }
}

inline bool matches(const std::string &line, const char *tmpl) {
    std::vector<word> l, t;
    auto same = [](const word &t, const word &w) { return match(t, 0, w, 0); };
    return split(line, l) && split(tmpl, t) && l.size() == t.size() &&
           std::equal(t.begin(), t.end(), l.begin(), same);
}

} // namespace shell_words
