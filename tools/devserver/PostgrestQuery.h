#pragma once

#include "core/support/CoreJSON.h"

#include <cstddef>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kavelo {

// A refusal in PostgREST's terms: HTTP 400 with {"code","message","details","hint"}.
class PostgrestError : public std::runtime_error {
  public:
    PostgrestError(std::string code, const std::string& message)
        : std::runtime_error(message), code_(std::move(code)) {}
    [[nodiscard]] const std::string& code() const { return code_; }

  private:
    std::string code_;
};

// The part of PostgREST's query language the clients use: select of plain columns, filters
// (eq, neq, gt, gte, lt, lte, like, ilike, in, is, each optionally behind not.), order and limit.
// A column that the table lacks is refused as PostgREST does, so clients' fall-backs to fewer columns
// can be exercised.
class PostgrestQuery {
  public:
    struct Filter {
        std::string column;
        std::string op;
        std::string value;
        std::vector<std::string> list; // for in.(...)
        bool negated = false;
    };

    // From the query parameters of a request; throws PostgrestError.
    static PostgrestQuery parse(const std::multimap<std::string, std::string>& params);

    // Rows that pass the filters, in the requested order; throws PostgrestError for unknown columns.
    [[nodiscard]] std::vector<Json> matching(std::vector<Json> rows, const std::string& table,
                                             const std::vector<std::string>& columns) const;
    // matching(), cut to limit, and narrowed to the selected columns.
    [[nodiscard]] Json select(std::vector<Json> rows, const std::string& table,
                              const std::vector<std::string>& columns) const;

    std::vector<std::string> selectColumns; // empty: all
    std::vector<Filter> filters;
    std::optional<std::string> orderColumn;
    bool orderDescending = false;
    std::optional<std::size_t> limit;
};

} // namespace kavelo
