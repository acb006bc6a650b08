#include "runtime/database/create_table.h"

#include "runtime/database/sql_tokens.h"
#include "runtime/exception.h"

#include <algorithm>
#include <iterator>

namespace database {

namespace {

// Words of columns and keys, and the functions of their expressions: those that depend on their
// arguments and the clock alone. In order, for the search.
constexpr std::string_view itemWords[] = {
    "abs",
    "adddate",
    "addtime",
    "always",
    "and",
    "as",
    "asc",
    "ascii",
    "auto_increment",
    "b", // in front of a text of bits
    "between",
    "bigint",
    "bin",
    "binary",
    "bit",
    "bit_length",
    "blob",
    "btree",
    "by",
    "case",
    "cast",
    "ceil",
    "ceiling",
    "char",
    "char_length",
    "character",
    "check",
    "clustering",
    "coalesce",
    "collate",
    "column_format",
    "comment",
    "compressed",
    "concat",
    "concat_ws",
    "convert",
    "crc32",
    "curdate",
    "current_date",
    "current_time",
    "current_timestamp",
    "curtime",
    "date",
    "date_add",
    "date_format",
    "date_sub",
    "datediff",
    "datetime",
    "day",
    "dayofmonth",
    "dayofweek",
    "dayofyear",
    "decimal",
    "default",
    "desc",
    "div",
    "double",
    "dynamic",
    "else",
    "elt",
    "end",
    "enum",
    "escape",
    "false",
    "field",
    "find_in_set",
    "fixed",
    "float",
    "floor",
    "format",
    "from_base64",
    "from_unixtime",
    "fulltext",
    "generated",
    "geometry",
    "geometrycollection",
    "greatest",
    "hash",
    "hex",
    "hour",
    "if",
    "ifnull",
    "ignored",
    "in",
    "index",
    "inet4",
    "inet6",
    "inet6_aton",
    "inet6_ntoa",
    "inet_aton",
    "inet_ntoa",
    "insert",
    "instr",
    "int",
    "interval",
    "invisible",
    "is",
    "json",
    "json_array",
    "json_compact",
    "json_contains",
    "json_exists",
    "json_extract",
    "json_length",
    "json_object",
    "json_quote",
    "json_type",
    "json_unquote",
    "json_valid",
    "json_value",
    "key",
    "key_block_size",
    "lcase",
    "least",
    "left",
    "length",
    "like",
    "linestring",
    "localtime",
    "localtimestamp",
    "locate",
    "longblob",
    "longtext",
    "lower",
    "lpad",
    "ltrim",
    "md5",
    "mediumblob",
    "mediumint",
    "mediumtext",
    "microsecond",
    "mid",
    "minute",
    "mod",
    "month",
    "multilinestring",
    "multipoint",
    "multipolygon",
    "not",
    "now",
    "null",
    "nullif",
    "octet_length",
    "on",
    "or",
    "persistent",
    "point",
    "polygon",
    "position",
    "pow",
    "power",
    "primary",
    "quarter",
    "regexp",
    "repeat",
    "replace",
    "reverse",
    "right",
    "rlike",
    "round",
    "rpad",
    "rtree",
    "rtrim",
    "second",
    "set",
    "sha",
    "sha1",
    "sha2",
    "sign",
    "signed",
    "smallint",
    "spatial",
    "stored",
    "str_to_date",
    "strcmp",
    "subdate",
    "substr",
    "substring",
    "substring_index",
    "sysdate",
    "text",
    "then",
    "time",
    "time_format",
    "timestamp",
    "timestampadd",
    "timestampdiff",
    "tinyblob",
    "tinyint",
    "tinytext",
    "to_base64",
    "to_days",
    "trim",
    "true",
    "truncate",
    "ucase",
    "unhex",
    "unique",
    "unix_timestamp",
    "unsigned",
    "update",
    "upper",
    "using",
    "utc_date",
    "utc_time",
    "utc_timestamp",
    "uuid",
    "varbinary",
    "varchar",
    "virtual",
    "visible",
    "week",
    "weekday",
    "when",
    "without",
    "xor",
    "year",
    "zerofill",
};
static_assert(std::is_sorted(std::begin(itemWords), std::end(itemWords)));

// Engines that keep rows in the server's own directory, and rows alone.
constexpr std::string_view engines[] = {"aria", "innodb", "memory", "myisam"};

// Options of a table, besides its engine: none that names a place or another server.
constexpr std::string_view options[] = {
    "auto_increment",    "avg_row_length",    "charset",          "checksum",
    "collate",           "comment",           "delay_key_write",  "encrypted",
    "encryption_key_id", "key_block_size",    "max_rows",         "min_rows",
    "pack_keys",         "page_checksum",     "page_compressed",  "page_compression_level",
    "row_format",        "stats_auto_recalc", "stats_persistent", "stats_sample_pages",
    "transactional",
};
static_assert(std::is_sorted(std::begin(options), std::end(options)));

constexpr std::string_view partitionWords[] = {
    "aria",      "by",           "columns",       "comment",   "day",        "dayofmonth",
    "dayofyear", "default",      "engine",        "hash",      "in",         "innodb",
    "key",       "less",         "linear",        "list",      "maxvalue",   "mod",
    "month",     "myisam",       "null",          "partition", "partitions", "quarter",
    "range",     "subpartition", "subpartitions", "than",      "to_days",    "unix_timestamp",
    "values",    "year",
};
static_assert(std::is_sorted(std::begin(partitionWords), std::end(partitionWords)));

template <std::size_t Count>
bool isIn(const std::string_view (&words)[Count], std::string_view word) {
    return std::binary_search(std::begin(words), std::end(words), word);
}

} // namespace

class CreateTable::Parser {
public:
    explicit Parser(CreateTable& table) : table_(table), tokens_(table.sql_) {}

    void run() {
        tokens_.expect("create table");
        table_.name_ = place(false);
        tokens_.expect("(");
        do {
            item();
        } while (tokens_.accept(","));
        tokens_.expect(")");
        while (tokens_.kind() != SqlToken::End) {
            option();
        }
        if (table_.columns_.empty()) {
            tokens_.refuse();
        }
    }

private:
    // A name that may change.
    std::string place(bool isConstraint) {
        const std::size_t begin = tokens_.begin();
        const std::size_t end = tokens_.end();
        std::string name = tokens_.expectName();
        table_.places_.push_back({begin, end, name, isConstraint});
        return name;
    }

    // A column, key or constraint.
    void item() {
        if (tokens_.kind() == SqlToken::Name) {
            table_.columns_.push_back(tokens_.expectName());
        } else if (tokens_.accept("constraint")) {
            if (constraint()) {
                return;
            }
        } else if (!tokens_.is("primary") && !tokens_.is("unique") && !tokens_.is("key") &&
                   !tokens_.is("fulltext") && !tokens_.is("spatial")) {
            tokens_.refuse();
        }
        body(itemWords);
    }

    // True for a foreign key, which is read whole.
    bool constraint() {
        const std::size_t begin = tokens_.begin();
        const std::size_t end = tokens_.end();
        std::string name = tokens_.expectName();
        if (tokens_.is("check")) {
            return false;
        }
        table_.places_.push_back({begin, end, name, true});
        const std::size_t definition = tokens_.begin();
        tokens_.expect("foreign key");
        names();
        tokens_.expect("references");
        std::string referred = place(false);
        std::size_t last = names();
        while (tokens_.accept("on")) {
            if (!tokens_.accept("delete")) {
                tokens_.expect("update");
            }
            last = action();
        }
        table_.foreignKeys_.push_back({std::move(name), std::move(referred),
                                       table_.sql_.substr(definition, last - definition)});
        return true;
    }

    // Of a foreign key; returns where it ends.
    std::size_t action() {
        std::size_t last = tokens_.end();
        if (tokens_.accept("cascade") || tokens_.accept("restrict")) {
            return last;
        }
        const bool set = tokens_.accept("set");
        if (!set) {
            tokens_.expect("no");
        }
        last = tokens_.end();
        tokens_.expect(!set ? "action" : tokens_.is("default") ? "default" : "null");
        return last;
    }

    std::size_t names() {
        tokens_.expect("(");
        do {
            tokens_.expectName();
        } while (tokens_.accept(","));
        const std::size_t last = tokens_.end();
        tokens_.expect(")");
        return last;
    }

    // Up to the comma or parenthesis that ends the item. The server checks how the words stand
    // together; here they need only be harmless.
    template <std::size_t Count>
    void body(const std::string_view (&words)[Count]) {
        std::string before;
        for (int depth = 0; depth > 0 || (!tokens_.is(",") && !tokens_.is(")"));) {
            depth += tokens_.is("(") ? 1 : tokens_.is(")") ? -1 : 0;
            const bool isNameOfSet =
                before == "set" || before == "collate" || before == "charset" || before == "using";
            if (tokens_.kind() == SqlToken::End ||
                (tokens_.kind() == SqlToken::Word && !isIn(words, tokens_.value()) &&
                 !(isNameOfSet && !tokens_.value().empty()) && !isIntroducer())) {
                tokens_.refuse();
            }
            before = tokens_.kind() == SqlToken::Word ? tokens_.value() : std::string();
            tokens_.next();
        }
    }

    // "_latin1" in front of a text.
    bool isIntroducer() const { return tokens_.value().starts_with("_"); }

    void option() {
        if (tokens_.accept("partition")) {
            partitions();
            return;
        }
        tokens_.accept("default");
        const std::string name = tokens_.value();
        const bool engine = name == "engine";
        std::string lower = name; // some stand between backticks, in capital letters
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c); });
        if ((tokens_.kind() != SqlToken::Word && tokens_.kind() != SqlToken::Name) ||
            (!engine && !isIn(options, lower))) {
            tokens_.refuse();
        }
        tokens_.next();
        tokens_.expect("=");
        if (engine ? tokens_.kind() != SqlToken::Word || !isIn(engines, tokens_.value())
                   : tokens_.kind() != SqlToken::Word && tokens_.kind() != SqlToken::Number &&
                         tokens_.kind() != SqlToken::Text) {
            tokens_.refuse();
        }
        tokens_.next();
    }

    void partitions() {
        for (; tokens_.kind() != SqlToken::End; tokens_.next()) {
            if (tokens_.kind() == SqlToken::Word && !isIn(partitionWords, tokens_.value())) {
                tokens_.refuse();
            }
        }
    }

    CreateTable& table_;
    SqlTokens tokens_;
};

CreateTable::CreateTable(std::string_view sql) : sql_(sql) {
    Parser(*this).run();
}

std::string CreateTable::statement(const Rename& table, const Rename& constraint) const {
    std::string result;
    std::size_t at = 0;
    for (const Place& place : places_) {
        result.append(sql_, at, place.begin - at);
        result += quotedName(place.isConstraint ? constraint(place.name) : table(place.name));
        at = place.end;
    }
    return result.append(sql_, at);
}

} // namespace database
