#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <variant>
#include <vector>

namespace utils {

enum class SpinnerArgumentType : uint32_t { ordinal = 1, categorical = 2, numerical = 3 };

// The help text of an argument type: "ordinal", "categorical", "numerical", or "" for others.
std::string toString(SpinnerArgumentType type);

struct SpinnerArgumentNumericalLimit {
    double minimum;
    double maximum;
    double step;
};

// One positional argument of a route, as shown in help and checked by dispatch.
struct SpinnerArgumentMetaData {
    using Limits = std::variant<std::monostate, SpinnerArgumentNumericalLimit, std::vector<std::string>>;
    using Validator = std::function<bool(const std::string&)>;

    std::string name;
    std::string description;
    SpinnerArgumentType type;
    Limits limits;
    Validator validator;   // empty: every text is accepted
    std::string defaultValue; // empty: no default
    int64_t count;         // values taken: 1 for a scalar, -1 for all remaining words
};

// The description of a route: its arguments in order.
struct SpinnerMetaData {
    std::vector<SpinnerArgumentMetaData> arguments;
};

// A plain signed 32-bit integer argument of count 1.
extern const SpinnerArgumentMetaData IntegerArgumentMetaData;

// A numerical argument checked by isNumericalString, within [minimum, maximum] in steps of 1
// or, in the second form, with no limits shown.
SpinnerArgumentMetaData numericalArgument(std::string name, std::string description, double minimum,
                                          double maximum, std::string defaultValue = "",
                                          int64_t count = 1);
SpinnerArgumentMetaData numericalArgument(std::string name, std::string description,
                                          std::string defaultValue = "", int64_t count = 1);

} // namespace utils
