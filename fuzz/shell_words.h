// Whether a command line is what its template formats to, with every text the template takes
// kept inside its place. The line is split into words as the shell does: single quotes take
// everything up to the next one; double quotes up to the next unescaped one, a backslash there
// escaping only $ ` " \ and a newline; a backslash elsewhere escapes the next character; blanks
// end a word; ; & | < > ( ) make an operator (a run of them is one) and so does a newline alone;
// a '#' that starts a word starts a comment. A $ or ` outside single quotes (an expansion) or an
// unterminated quote fails the split: no command of the library has one.
//
// In a template, %s stands for a text, %d for a decimal number and %a for a dotted address. The
// line must split into the template's operators and words, each word made of the template's own
// characters (quoted as there) and, for each %s, characters that reach the command as they are:
// quoted, or not a pattern character (* ? [ ] { }) nor a '~' the shell expands (at a word's start,
// after = or : in an assignment), and not a '-' that starts the word (an option).
#pragma once

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

namespace shell_words {

// A word's characters, each +256 when quoted; an operator's are negative.
using word = std::vector<int>;

inline bool one_of(const char *set, char c) {
    return c != '\0' && strchr(set, c) != nullptr;
}

inline bool split(const std::string &s, std::vector<word> &out) {
    word w;
    bool in = false;
    auto end = [&] {
        if (in)
            out.push_back(w);
        w.clear();
        in = false;
    };
    auto add = [&](char c, bool quoted) {
        w.push_back(static_cast<unsigned char>(c) + (quoted ? 256 : 0));
        in = true;
    };
    for (size_t i = 0; i < s.size(); ++i) {
        char c = s[i];
        if (c == ' ' || c == '\t') {
            end();
        } else if (one_of(";&|<>()\n", c)) {
            end();
            word op{-c};
            while (c != '\n' && i + 1 < s.size() && one_of(";&|<>()", s[i + 1]))
                op.push_back(-s[++i]);
            out.push_back(op);
        } else if (c == '#' && !in) {
            i = std::min(s.find('\n', i), s.size()) - 1;
        } else if (c == '\\') {
            if (i + 1 == s.size())
                add(c, false);
            else if (s[++i] != '\n')
                add(s[i], true);
        } else if (c == '\'') {
            size_t close = s.find('\'', i + 1);
            if (close == std::string::npos)
                return false;
            in = true;
            while (++i < close)
                add(s[i], true);
        } else if (c == '"') {
            in = true;
            for (++i; i >= s.size() || s[i] != '"'; ++i) {
                if (i >= s.size() || one_of("$`", s[i]))
                    return false;
                if (s[i] == '\\' && i + 1 < s.size() && one_of("$`\"\\\n", s[i + 1]) &&
                    s[++i] == '\n')
                    continue;
                add(s[i], true);
            }
        } else if (one_of("$`", c)) {
            return false;
        } else {
            add(c, false);
        }
    }
    end();
    return true;
}

// Whether the word starts with an unquoted NAME=, a variable assignment.
inline bool assignment(const word &w) {
    size_t i = 0;
    while (i < w.size() && w[i] < 128 && (isalpha(w[i]) || w[i] == '_' || (i && isdigit(w[i]))))
        ++i;
    return i > 0 && i < w.size() && w[i] == '=';
}

// Whether w[i], in the place of a placeholder p ('s', 'd' or 'a') starting at w[from], is one of
// its characters.
inline bool fits(char p, const word &w, size_t i, size_t from) {
    int c = w[i] & 255;
    if (p != 's')
        return isdigit(c) || c == (p == 'a' ? '.' : i == from ? '-' : -1);
    if (i == 0 && c == '-')
        return false;
    if (w[i] > 255)
        return true;
    if (one_of("*?[]{}", static_cast<char>(c)))
        return false;
    return c != '~' || (i > 0 && !(assignment(w) && w[i - 1] < 256 &&
                                   one_of("=:", static_cast<char>(w[i - 1]))));
}

// Whether w[wi..] matches the template word t[ti..] (placeholders as '%' then their letter).
inline bool match(const word &t, size_t ti, const word &w, size_t wi) {
    if (ti == t.size())
        return wi == w.size();
    if ((t[ti] & 255) != '%' || ti + 1 == t.size() || !one_of("sda", static_cast<char>(t[ti + 1])))
        return wi < w.size() && w[wi] == t[ti] && match(t, ti + 1, w, wi + 1);
    char p = static_cast<char>(t[ti + 1] & 255);
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
    if (!split(line, l) || !split(tmpl, t) || l.size() != t.size())
        return false;
    auto op = [](const word &w) { return !w.empty() && w[0] < 0; };
    for (size_t i = 0; i < l.size(); ++i)
        if (op(l[i]) || op(t[i]) ? l[i] != t[i] : !match(t[i], 0, l[i], 0))
            return false;
    return true;
}

} // namespace shell_words
