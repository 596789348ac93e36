#include "tools/devserver/PostgrestQuery.h"

#include <algorithm>
#include <cctype>

namespace kavelo {

namespace {

const std::vector<std::string> kOperators = {"eq",  "neq",  "gt",    "gte", "lt",
                                             "lte", "like", "ilike", "in",  "is"};

std::vector<std::string> splitList(const std::string& text) {
    std::vector<std::string> items;
    std::string current;
    bool quoted = false;
    for (char c : text) {
        if (c == '"') {
            quoted = !quoted;
        } else if (c == ',' && !quoted) {
            items.push_back(current);
            current.clear();
        } else {
            current.push_back(c);
        }
    }
    items.push_back(current);
    return items;
}

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

// PostgREST writes the LIKE wildcard % as * in URLs; both are accepted. Linear in practice: on a mismatch
// only the last wildcard is widened, so no pattern from the network can make it explode.
bool likeMatch(const std::string& text, const std::string& pattern) {
    std::size_t t = 0;
    std::size_t p = 0;
    std::size_t starP = std::string::npos;
    std::size_t starT = 0;
    while (t < text.size()) {
        if (p < pattern.size() && (pattern[p] == '*' || pattern[p] == '%')) {
            starP = p++;
            starT = t;
        } else if (p < pattern.size() && (pattern[p] == '_' || pattern[p] == text[t])) {
            ++p;
            ++t;
        } else if (starP != std::string::npos) {
            p = starP + 1;
            t = ++starT;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && (pattern[p] == '*' || pattern[p] == '%')) {
        ++p;
    }
    return p == pattern.size();
}

std::string textOf(const Json& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_boolean()) {
        return value.get<bool>() ? "true" : "false";
    }
    return value.dump();
}

// -1, 0, 1; numbers compare as numbers, everything else as text.
int compare(const Json& value, const std::string& operand) {
    if (value.is_number()) {
        try {
            double a = value.get<double>();
            double b = std::stod(operand);
            return a < b ? -1 : (a > b ? 1 : 0);
        } catch (const std::exception&) {
        }
    }
    auto text = textOf(value);
    return text < operand ? -1 : (text > operand ? 1 : 0);
}

bool passes(const PostgrestQuery::Filter& f, const Json& value) {
    bool result = false;
    if (f.op == "is") {
        result = (f.value == "null" && value.is_null()) || (f.value == "true" && value == Json(true)) ||
                 (f.value == "false" && value == Json(false));
    } else if (value.is_null()) {
        result = false; // SQL: a comparison with NULL is never true
    } else if (f.op == "in") {
        result = std::any_of(f.list.begin(), f.list.end(),
                             [&](const auto& item) { return compare(value, item) == 0; });
    } else if (f.op == "like") {
        result = likeMatch(textOf(value), f.value);
    } else if (f.op == "ilike") {
        result = likeMatch(lowered(textOf(value)), lowered(f.value));
    } else {
        int c = compare(value, f.value);
        result = (f.op == "eq" && c == 0) || (f.op == "neq" && c != 0) || (f.op == "gt" && c > 0) ||
                 (f.op == "gte" && c >= 0) || (f.op == "lt" && c < 0) || (f.op == "lte" && c <= 0);
    }
    return f.negated ? !result : result;
}

void requireColumn(const std::string& table, const std::vector<std::string>& columns,
                   const std::string& column) {
    if (std::find(columns.begin(), columns.end(), column) == columns.end()) {
        throw PostgrestError("42703", "column " + table + "." + column + " does not exist");
    }
}

} // namespace

PostgrestQuery PostgrestQuery::parse(const std::multimap<std::string, std::string>& params) {
    PostgrestQuery query;
    for (const auto& [key, value] : params) {
        if (key == "select") {
            if (value == "*" || value.empty()) {
                continue;
            }
            for (const auto& column : splitList(value)) {
                if (column.find_first_of("():!") != std::string::npos) {
                    throw PostgrestError("PGRST200", "Could not find a relationship for '" + column + "'");
                }
                if (column != "*") {
                    query.selectColumns.push_back(column);
                }
            }
        } else if (key == "limit") {
            if (value.empty() ||
                !std::all_of(value.begin(), value.end(),
                             [](unsigned char c) { return std::isdigit(c) != 0; }) ||
                value.size() > 9) {
                throw PostgrestError("PGRST102", "limit must be a non-negative integer");
            }
            query.limit = static_cast<std::size_t>(std::stoul(value));
        } else if (key == "order") {
            auto dot = value.find('.');
            query.orderColumn = value.substr(0, dot);
            auto direction = dot == std::string::npos ? "asc" : value.substr(dot + 1);
            query.orderDescending = direction.starts_with("desc");
        } else {
            Filter filter;
            filter.column = key;
            std::string rest = value;
            if (rest.starts_with("not.")) {
                filter.negated = true;
                rest = rest.substr(4);
            }
            auto dot = rest.find('.');
            filter.op = rest.substr(0, dot);
            if (dot == std::string::npos ||
                std::find(kOperators.begin(), kOperators.end(), filter.op) == kOperators.end()) {
                throw PostgrestError("PGRST100", "failed to parse filter (" + value + ")");
            }
            filter.value = rest.substr(dot + 1);
            if (filter.op == "in") {
                if (filter.value.size() < 2 || filter.value.front() != '(' || filter.value.back() != ')') {
                    throw PostgrestError("PGRST100", "failed to parse filter (" + value + ")");
                }
                filter.list = splitList(filter.value.substr(1, filter.value.size() - 2));
            }
            query.filters.push_back(std::move(filter));
        }
    }
    return query;
}

std::vector<Json> PostgrestQuery::matching(std::vector<Json> rows, const std::string& table,
                                           const std::vector<std::string>& columns) const {
    for (const auto& filter : filters) {
        requireColumn(table, columns, filter.column);
    }
    if (orderColumn) {
        requireColumn(table, columns, *orderColumn);
    }
    std::erase_if(rows, [&](const Json& row) {
        return !std::all_of(filters.begin(), filters.end(),
                            [&](const Filter& f) { return passes(f, row.value(f.column, Json(nullptr))); });
    });
    if (orderColumn) {
        std::stable_sort(rows.begin(), rows.end(), [&](const Json& a, const Json& b) {
            const auto& x = a.value(*orderColumn, Json(nullptr));
            const auto& y = b.value(*orderColumn, Json(nullptr));
            return orderDescending ? y < x : x < y;
        });
    }
    return rows;
}

Json PostgrestQuery::select(std::vector<Json> rows, const std::string& table,
                            const std::vector<std::string>& columns) const {
    for (const auto& column : selectColumns) {
        requireColumn(table, columns, column);
    }
    auto kept = matching(std::move(rows), table, columns);
    if (limit && kept.size() > *limit) {
        kept.resize(*limit);
    }
    Json result = Json::array();
    for (const auto& row : kept) {
        Json narrowed = Json::object();
        for (const auto& column : selectColumns.empty() ? columns : selectColumns) {
            narrowed[column] = row.value(column, Json(nullptr));
        }
        result.push_back(std::move(narrowed));
    }
    return result;
}

} // namespace kavelo
