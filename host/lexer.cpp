// Lexical side of the scenario language (see lexer.h).
#include "lexer.h"

#include <cctype>
#include <charconv>
#include <limits>

namespace host {

namespace {

bool blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string trim(const std::string &s) {
    size_t b = 0, e = s.size();
    while (b < e && blank(s[b])) ++b;
    while (e > b && blank(s[e - 1])) --e;
    return s.substr(b, e - b);
}

}  // namespace

// ---- statements ------------------------------------------------------------------

void StatementReader::reset() {
    text_.clear();
    depth_ = 0;
    first_line_ = 0;
}

bool StatementReader::feed(const std::string &line, int lineno) {
    if (depth_ == 0) {
        text_.clear();
        first_line_ = lineno;
    } else {
        text_ += '\n';
    }
    // Single quotes are string quotes only inside a record, so that plain
    // texts ("print don't") stay usable.
    char quote = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        if (quote != 0) {
            text_ += c;
            if (c == '\\' && i + 1 < line.size()) {
                text_ += line[++i];
            } else if (c == quote) {
                quote = 0;
            }
            continue;
        }
        if (c == '#') break;
        if (c == '"' || (c == '\'' && depth_ > 0)) {
            quote = c;
        } else if (c == '{') {
            ++depth_;
        } else if (c == '}') {
            if (depth_ == 0) {
                int first = first_line_;
                reset();
                throw ScriptError("'}' without a matching '{'" +
                                  (first != lineno
                                       ? " (statement from line " + std::to_string(first) + ")"
                                       : std::string()));
            }
            --depth_;
        }
        text_ += c;
    }
    if (quote != 0) {
        reset();
        throw ScriptError("unterminated quoted text");
    }
    return depth_ == 0;
}

std::string StatementReader::take() {
    std::string s = trim(text_);
    text_.clear();
    return s;
}

// ---- cursor ---------------------------------------------------------------------

void Cursor::skip_blanks() {
    while (pos_ < text_.size() && blank(text_[pos_])) ++pos_;
}

bool Cursor::at_end() {
    skip_blanks();
    return pos_ >= text_.size();
}

std::optional<std::string> Cursor::try_word() {
    skip_blanks();
    if (pos_ >= text_.size() || text_[pos_] == '{' || text_[pos_] == '"') return std::nullopt;
    size_t b = pos_;
    while (pos_ < text_.size() && !blank(text_[pos_]) && text_[pos_] != '{') ++pos_;
    return text_.substr(b, pos_ - b);
}

std::string Cursor::word(const char *what) {
    auto w = try_word();
    if (!w) {
        if (pos_ < text_.size() && text_[pos_] == '{') {
            throw ScriptError(std::string("expected ") + what + ", found a record");
        }
        if (pos_ < text_.size()) {
            throw ScriptError(std::string("expected ") + what + ", found a quoted text");
        }
        throw ScriptError(std::string("missing ") + what);
    }
    return *w;
}

std::string Cursor::record(const char *what) {
    skip_blanks();
    if (pos_ >= text_.size()) throw ScriptError(std::string("missing ") + what + " in braces");
    if (text_[pos_] != '{') {
        throw ScriptError(std::string("expected ") + what + " in braces, found '" +
                          text_.substr(pos_, text_.find_first_of(" \t\n", pos_) - pos_) + "'");
    }
    int depth = 0;
    char quote = 0;
    size_t b = pos_ + 1;
    for (; pos_ < text_.size(); ++pos_) {
        char c = text_[pos_];
        if (quote != 0) {
            if (c == '\\') {
                ++pos_;
            } else if (c == quote) {
                quote = 0;
            }
            continue;
        }
        if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '{') {
            ++depth;
        } else if (c == '}' && --depth == 0) {
            ++pos_;
            return text_.substr(b, pos_ - 1 - b);
        }
    }
    throw ScriptError(std::string(what) + " has unbalanced braces");
}

std::optional<std::string> Cursor::bracketed() {
    skip_blanks();
    if (pos_ >= text_.size() || text_[pos_] != '[') return std::nullopt;
    size_t close = text_.find(']', pos_);
    if (close == std::string::npos) throw ScriptError("'[' without ']'");
    std::string name = trim(text_.substr(pos_ + 1, close - pos_ - 1));
    pos_ = close + 1;
    return name;
}

bool Cursor::next_is_quote() {
    skip_blanks();
    return pos_ < text_.size() && text_[pos_] == '"';
}

std::string Cursor::rest() {
    skip_blanks();
    if (pos_ >= text_.size() || text_[pos_] != '"') {
        std::string r = trim(text_.substr(pos_));
        pos_ = text_.size();
        return r;
    }
    std::string out;
    for (++pos_; pos_ < text_.size(); ++pos_) {
        char c = text_[pos_];
        if (c == '"') {
            ++pos_;
            end();
            return out;
        }
        if (c == '\\' && pos_ + 1 < text_.size()) {
            char n = text_[++pos_];
            switch (n) {
                case 'n':
                    out += '\n';
                    break;
                case 't':
                    out += '\t';
                    break;
                case '\\':
                    out += '\\';
                    break;
                case '"':
                    out += '"';
                    break;
                default:
                    throw ScriptError(std::string("unknown escape \\") + n);
            }
            continue;
        }
        out += c;
    }
    throw ScriptError("unterminated quoted text");
}

void Cursor::end() {
    if (!at_end()) {
        std::string left = text_.substr(pos_);
        if (left.size() > 40) left = left.substr(0, 40) + "...";
        throw ScriptError("unexpected '" + left + "'");
    }
}

// ---- values ---------------------------------------------------------------------

int64_t parse_int(const std::string &tok, int64_t lo, int64_t hi, const char *what) {
    int64_t v = 0;
    const char *b = tok.data();
    const char *e = b + tok.size();
    if (b != e && *b == '+') ++b;
    auto [p, ec] = std::from_chars(b, e, v);
    if (tok.empty() || ec == std::errc::invalid_argument || p != e) {
        throw ScriptError(std::string(what) + " must be a number, not '" + tok + "'");
    }
    if (ec == std::errc::result_out_of_range || v < lo || v > hi) {
        throw ScriptError(std::string(what) + " " + tok + " is out of range " + std::to_string(lo) +
                          ".." + std::to_string(hi));
    }
    return v;
}

int parse_db(const std::string &tok) {
    static constexpr struct {
        const char *name;
        int db;
    } names[] = {{"ASIC_DB", 0}, {"LOCAL_DB", 3}, {"UDP_DB", 8}, {"TOPO_DB", 14}};
    for (const auto &n : names) {
        if (tok == n.name) return n.db;
    }
    if (!tok.empty() && std::isdigit(static_cast<unsigned char>(tok[0]))) {
        return static_cast<int>(parse_int(tok, 0, 15, "database"));
    }
    throw ScriptError("unknown database '" + tok +
                      "' (a number or ASIC_DB, LOCAL_DB, UDP_DB, TOPO_DB)");
}

Position parse_position(const std::string &tok, int x_max, const char *what) {
    int v[3];
    size_t b = 0;
    for (int i = 0; i < 3; ++i) {
        size_t e = i < 2 ? tok.find('/', b) : tok.size();
        if (e == std::string::npos || (i == 2 && tok.find('/', b) != std::string::npos)) {
            throw ScriptError(std::string("bad ") + what + " '" + tok + "' (written DEV/SLOT/" +
                              (x_max > 31 ? "LPORT" : "SSLOT") + ")");
        }
        std::string part = tok.substr(b, e - b);
        const char *names[] = {"device", "slot", x_max > 31 ? "local port" : "sub-slot"};
        int64_t lo = i == 0 ? 1 : 0;
        int64_t hi = i == 0 ? 32 : i == 1 ? 31 : x_max;
        try {
            v[i] = static_cast<int>(parse_int(part, lo, hi, names[i]));
        } catch (const ScriptError &err) {
            throw ScriptError(std::string("bad ") + what + " '" + tok + "': " + err.what());
        }
        b = e + 1;
    }
    return {v[0], v[1], v[2]};
}

uint32_t card_gslot(const Position &p) {
    return static_cast<uint32_t>(p.slot) | (static_cast<uint32_t>(p.dev - 1) << 5) |
           (static_cast<uint32_t>(p.third) << 10);
}

uint64_t parse_duration_us(const std::string &tok) {
    static constexpr struct {
        const char *suffix;
        uint64_t us;
    } units[] = {{"us", 1}, {"ms", 1000}, {"s", 1000000}, {"m", 60000000ull}, {"h", 3600000000ull}};
    size_t d = 0;
    while (d < tok.size() && std::isdigit(static_cast<unsigned char>(tok[d]))) ++d;
    std::string unit = tok.substr(d);
    for (const auto &u : units) {
        if (unit != u.suffix) continue;
        if (d == 0) break;
        uint64_t n = 0;
        auto [p, ec] = std::from_chars(tok.data(), tok.data() + d, n);
        if (ec != std::errc() || n > std::numeric_limits<uint64_t>::max() / u.us) {
            throw ScriptError("duration '" + tok + "' is too long");
        }
        (void)p;
        return n * u.us;
    }
    throw ScriptError("bad duration '" + tok + "' (a number with us, ms, s, m or h: 90s, 30m)");
}

}  // namespace host
