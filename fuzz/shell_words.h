// A small shell-word splitter, and a matcher of a command line against the template it was made
// from. The splitter follows the shell's quoting: single quotes take everything up to the next
// single quote; double quotes everything up to the next unescaped double quote, a backslash there
// escaping only $ ` " \ and a newline; a backslash outside quotes escapes the next character.
// Outside quotes, blanks end a word, ; & | < > ( ) make operators (a run of them is one
// operator), a newline is an operator of its own, and a '#' that starts a word starts a comment.
// A $ or ` outside single quotes (an expansion) fails the split: no command of the library has
// one.
//
// A template is the command as the area formats it, with %s standing for a text (the caller's,
// or a stored one), %d for a decimal number and %a for a dotted address. A command matches a
// template when it splits into the same operators and words, each word made of the template's
// fixed characters (quoted as in the template) and, for each placeholder, characters that stay
// what they are: any quoted character, or an unquoted one that the shell does not expand
// (no * ? [ ] { }, no '~' where it is expanded), and not a '-' that starts the word (an
// option).
#pragma once

#include <string>
#include <vector>

namespace shell_words {

struct cooked {
    char c;
    bool quoted;
};

struct token {
    bool op = false;
    std::string text;          // an operator's characters
    std::vector<cooked> chars; // a word's characters, quotes removed
};

struct split_result {
    std::vector<token> tokens;
    const char *error = nullptr; // an unterminated quote, or an expansion
};

inline bool is_op_char(char c) {
    return c == ';' || c == '&' || c == '|' || c == '<' || c == '>' || c == '(' || c == ')' ||
           c == '\n';
}

inline split_result split(const std::string &s) {
    split_result out;
    token word;
    bool in_word = false;
    auto end_word = [&] {
        if (in_word)
            out.tokens.push_back(word);
        word = token{};
        in_word = false;
    };
    auto add = [&](char c, bool quoted) {
        word.chars.push_back({c, quoted});
        in_word = true;
    };
    size_t i = 0;
    while (i < s.size()) {
        char c = s[i];
        if (c == ' ' || c == '\t') {
            end_word();
            ++i;
        } else if (is_op_char(c)) {
            end_word();
            token op;
            op.op = true;
            if (c == '\n')
                op.text = s[i++]; // a newline is an operator of its own
            else
                while (i < s.size() && is_op_char(s[i]) && s[i] != '\n')
                    op.text += s[i++];
            out.tokens.push_back(op);
        } else if (c == '#' && !in_word) {
            while (i < s.size() && s[i] != '\n')
                ++i;
        } else if (c == '\\') {
            if (i + 1 >= s.size()) {
                add(c, false);
                ++i;
            } else if (s[i + 1] == '\n') {
                i += 2; // a line continuation
            } else {
                add(s[i + 1], true);
                i += 2;
            }
        } else if (c == '\'') {
            size_t close = s.find('\'', i + 1);
            if (close == std::string::npos) {
                out.error = "unterminated single quote";
                return out;
            }
            in_word = true;
            for (size_t k = i + 1; k < close; ++k)
                add(s[k], true);
            i = close + 1;
        } else if (c == '"') {
            in_word = true;
            ++i;
            for (;;) {
                if (i >= s.size()) {
                    out.error = "unterminated double quote";
                    return out;
                }
                char d = s[i];
                if (d == '"') {
                    ++i;
                    break;
                }
                if (d == '$' || d == '`') {
                    out.error = "expansion inside double quotes";
                    return out;
                }
                if (d == '\\' && i + 1 < s.size() &&
                    (s[i + 1] == '$' || s[i + 1] == '`' || s[i + 1] == '"' || s[i + 1] == '\\' ||
                     s[i + 1] == '\n')) {
                    if (s[i + 1] != '\n')
                        add(s[i + 1], true);
                    i += 2;
                    continue;
                }
                add(d, true);
                ++i;
            }
        } else if (c == '$' || c == '`') {
            out.error = "expansion";
            return out;
        } else {
            add(c, false);
            ++i;
        }
    }
    end_word();
    return out;
}

// Placeholders, as the matcher sees them in a split template.
constexpr char kText = '\x01';
constexpr char kNumber = '\x02';
constexpr char kAddress = '\x03';

// The template with its placeholders as the marker characters above.
inline std::string markers(const char *tmpl) {
    std::string out;
    for (const char *p = tmpl; *p; ++p) {
        if (p[0] == '%' && (p[1] == 's' || p[1] == 'd' || p[1] == 'a')) {
            out += p[1] == 's' ? kText : p[1] == 'd' ? kNumber : kAddress;
            ++p;
        } else {
            out += *p;
        }
    }
    return out;
}

// Whether the word starts with an unquoted NAME=, a variable assignment.
inline bool assignment(const std::vector<cooked> &w) {
    for (size_t i = 0; i < w.size() && !w[i].quoted; ++i) {
        char c = w[i].c;
        if (c == '=')
            return i > 0;
        bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
        if (!letter && !(i > 0 && c >= '0' && c <= '9'))
            return false;
    }
    return false;
}

// Whether w[i] reaches the command as it stands: quoted, or not a pattern character, and not a
// '~' where the shell expands it (a word's start; after '=' or ':' in an assignment).
inline bool stays_itself(const std::vector<cooked> &w, size_t i) {
    const cooked &ch = w[i];
    if (ch.quoted)
        return true;
    switch (ch.c) {
    case '*':
    case '?':
    case '[':
    case ']':
    case '{':
    case '}':
        return false;
    case '~':
        return i > 0 &&
               !(assignment(w) && !w[i - 1].quoted && (w[i - 1].c == '=' || w[i - 1].c == ':'));
    default:
        return true;
    }
}

inline bool number_char(const cooked &ch, bool first) {
    return (ch.c >= '0' && ch.c <= '9') || (first && ch.c == '-');
}

inline bool address_char(const cooked &ch) {
    return (ch.c >= '0' && ch.c <= '9') || ch.c == '.';
}

inline bool match_word(const std::vector<cooked> &t, size_t ti, const std::vector<cooked> &w,
                       size_t wi) {
    if (ti == t.size())
        return wi == w.size();
    const char m = t[ti].c;
    if (m == kText || m == kNumber || m == kAddress) {
        for (size_t end = wi;; ++end) {
            if (end > wi) {
                const cooked &ch = w[end - 1];
                bool ok = m == kText ? stays_itself(w, end - 1) && !(end - 1 == 0 && ch.c == '-')
                          : m == kNumber ? number_char(ch, end - 1 == wi)
                                         : address_char(ch);
                if (!ok)
                    return false;
                if (match_word(t, ti + 1, w, end))
                    return true;
            } else if (m == kText && match_word(t, ti + 1, w, end)) {
                return true; // an empty text
            }
            if (end == w.size())
                return false;
        }
    }
    if (wi == w.size() || w[wi].c != m || w[wi].quoted != t[ti].quoted)
        return false;
    return match_word(t, ti + 1, w, wi + 1);
}

// Whether command is what tmpl (with its %s, %d, %a) formats to, every placeholder's text
// inside its place.
inline bool matches(const std::string &command, const char *tmpl) {
    split_result c = split(command);
    split_result t = split(markers(tmpl));
    if (c.error || t.error || c.tokens.size() != t.tokens.size())
        return false;
    for (size_t i = 0; i < c.tokens.size(); ++i) {
        const token &ct = c.tokens[i], &tt = t.tokens[i];
        if (ct.op != tt.op)
            return false;
        if (ct.op ? ct.text != tt.text : !match_word(tt.chars, 0, ct.chars, 0))
            return false;
    }
    return true;
}

} // namespace shell_words
