// Scenario language, lexical side: turns lines into statements (one command,
// records in braces may run over several lines, '#' comments) and splits a
// statement into words, quoted texts and records. Also the small value syntaxes
// the commands share: integers, database names, positions and durations.
// Nothing here touches the module or the stand-in, so it can be tested alone.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace host {

// A mistake in the script itself (exit status 2). Never a crash.
struct ScriptError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Brace depth and quote state carried from one line to the next while a
// record is still open.
class StatementReader {
  public:
    // Feed one line (without its newline). Returns true when a statement is
    // complete; take() then yields it. Throws ScriptError for a '}' without '{'
    // or an unterminated quote.
    bool feed(const std::string &line, int lineno);
    // The statement gathered so far (comments removed, lines joined by '\n').
    std::string take();
    bool open() const { return depth_ > 0; }
    int first_line() const { return first_line_; }
    void reset();

  private:
    std::string text_;
    int depth_ = 0;
    int first_line_ = 0;
};

// Cursor over one statement.
class Cursor {
  public:
    explicit Cursor(std::string text) : text_(std::move(text)) {}
    bool at_end();
    // Next blank-separated word; ScriptError naming `what` when there is none
    // or when a record or quoted text stands there instead.
    std::string word(const char *what);
    std::optional<std::string> try_word();
    // A record: the text between the outer braces (braces not included).
    std::string record(const char *what);
    // The rest of the statement as a text: a quoted string (with \" \\ \n \t
    // escapes) or the bare rest, trimmed. Empty is allowed.
    std::string rest();
    // "[name]" when it stands next: the name inside the brackets.
    std::optional<std::string> bracketed();
    // The next thing is a quoted text (so "missing" can be told from missing).
    bool next_is_quote();
    // Throws when anything is left.
    void end();

  private:
    void skip_blanks();
    std::string text_;
    size_t pos_ = 0;
};

// Strict integer parsing: the whole token, within the range.
int64_t parse_int(const std::string &tok, int64_t lo, int64_t hi, const char *what);

// Database: a number 0..15 or one of ASIC_DB, LOCAL_DB, UDP_DB, TOPO_DB.
int parse_db(const std::string &tok);

// DEV/SLOT/X with DEV 1..32, SLOT 0..31 and X 0..x_max.
struct Position {
    int dev;
    int slot;
    int third;  // sub-slot of a card, local port of a port
};
Position parse_position(const std::string &tok, int x_max, const char *what);
// Packed card position of the device-data library.
uint32_t card_gslot(const Position &p);

// "500ms", "90s", "30m", "1h", "250us" -> microseconds.
uint64_t parse_duration_us(const std::string &tok);

}  // namespace host
