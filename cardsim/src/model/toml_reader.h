/// Strict reading of TOML tables: every key is known, of its type and in its range, or the reader says where it is not.
#ifndef CARDSIM_TOML_READER_H
#define CARDSIM_TOML_READER_H

#include <toml++/toml.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "descriptor.h"
#include "error.h"

namespace cardsim {

/// The line a node starts in.
uint32_t line_of(const toml::node &node);

/// Parses an open file of at most `most` bytes, which is `path` in reasons; throws Error. Refuses what is no plain
/// file and what nests deeper than any card does: the parser would run out of stack.
toml::table parse_toml(const Descriptor &file, const std::filesystem::path &path, size_t most);

/// Throws Error: "FILE:LINE: reason" of the node's file and line, printable.
[[noreturn]] void fail_at(const toml::source_region &place, const std::string &reason);

/// Reads one table key by key. The table must outlive the reader. Every reading function throws Error when the key
/// is there with a wrong type or value, and returns nothing when it is not there.
class TableReader {
  public:
    /// `where` names the table in reasons, as it is written in the file: "[card]".
    TableReader(const toml::table &table, std::string where);

    std::optional<int64_t> whole(const char *key, int64_t least, int64_t most);
    /// A finite number that is not negative.
    std::optional<double> seconds(const char *key);
    std::optional<bool> flag(const char *key);
    /// At most `most` bytes, none of them a control character.
    std::optional<std::string> line(const char *key, size_t most);
    /// Any text.
    std::optional<std::string> text(const char *key);
    /// The node as it is, for what has more than one type; null: not there.
    const toml::node *node(const char *key);
    const toml::table *table(const char *key);
    /// The tables of an array of tables; empty: not there.
    std::vector<const toml::table *> tables(const char *key);

    /// What was read, or Error because the key is missing.
    template <typename Value>
    Value need(const char *key, std::optional<Value> value) const {
        if (!value) {
            fail("needs the key '" + std::string(key) + "'");
        }
        return *value;
    }

    /// Throws Error when the table has a key that nobody asked for.
    void finish() const;

    /// Throw Error at the key's line, or at the table's.
    [[noreturn]] void fail(const char *key, const std::string &reason) const;
    [[noreturn]] void fail(const std::string &reason) const;

  private:
    const toml::table &table_;
    std::string where_;
    std::set<std::string, std::less<>> asked_;
};

}  // namespace cardsim

#endif
