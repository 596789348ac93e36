#include "tools/cli/CliArguments.h"

#include <cmath>
#include <cstdlib>

namespace kavelo::cli {

CliArguments::CliArguments(const std::vector<std::string>& args, const std::set<std::string>& valued,
                           const std::set<std::string>& switches) {
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg.rfind("--", 0) != 0) {
            throw UsageError("unexpected argument '" + arg + "'");
        }
        std::string name = arg.substr(2);
        std::optional<std::string> inlineValue;
        if (const auto eq = name.find('='); eq != std::string::npos) {
            inlineValue = name.substr(eq + 1);
            name = name.substr(0, eq);
        }
        if (valued.contains(name)) {
            if (inlineValue) {
                values_[name] = *inlineValue;
            } else if (i + 1 < args.size()) {
                values_[name] = args[++i];
            } else {
                throw UsageError("--" + name + " needs a value");
            }
        } else if (switches.contains(name)) {
            if (inlineValue) {
                throw UsageError("--" + name + " is a switch and takes no value; write --" + name + " alone");
            }
            switches_.insert(name);
        } else {
            throw UsageError("unknown option '--" + name + "'");
        }
    }
}

bool CliArguments::has(const std::string& name) const {
    return switches_.contains(name) || values_.contains(name);
}

std::optional<std::string> CliArguments::value(const std::string& name) const {
    const auto it = values_.find(name);
    if (it == values_.end()) {
        return std::nullopt;
    }
    return it->second;
}

std::optional<double> CliArguments::number(const std::string& name, double min, double max) const {
    const auto text = value(name);
    if (!text) {
        return std::nullopt;
    }
    char* end = nullptr;
    const double parsed = std::strtod(text->c_str(), &end);
    if (text->empty() || end != text->c_str() + text->size() || !std::isfinite(parsed) || parsed < min ||
        parsed > max) {
        throw UsageError("--" + name + " takes a number from " + std::to_string(static_cast<long long>(min)) +
                         " to " + std::to_string(static_cast<long long>(max)) + ", not '" + *text + "'");
    }
    return parsed;
}

std::optional<int> CliArguments::integer(const std::string& name, int min, int max) const {
    const auto parsed = number(name, min, max);
    if (!parsed) {
        return std::nullopt;
    }
    if (std::floor(*parsed) != *parsed) {
        throw UsageError("--" + name + " takes a whole number, not '" + *value(name) + "'");
    }
    return static_cast<int>(*parsed);
}

std::string CliArguments::choice(const std::string& name, const std::vector<std::string>& allowed,
                                 const std::string& fallback) const {
    const auto text = value(name);
    if (!text) {
        return fallback;
    }
    for (const auto& option : allowed) {
        if (*text == option) {
            return option;
        }
    }
    std::string list;
    for (const auto& option : allowed) {
        list += (list.empty() ? "" : ", ") + option;
    }
    throw UsageError("--" + name + " takes one of " + list + ", not '" + *text + "'");
}

std::vector<std::string> splitList(const std::string& text) {
    std::vector<std::string> items;
    std::string current;
    for (const char c : text + ",") {
        if (c == ',' || c == ';') {
            const auto first = current.find_first_not_of(" \t");
            const auto last = current.find_last_not_of(" \t");
            if (first != std::string::npos) {
                items.push_back(current.substr(first, last - first + 1));
            }
            current.clear();
        } else {
            current += c;
        }
    }
    return items;
}

} // namespace kavelo::cli
