#include "utils/router/spinnermetadata.h"

#include "utils/base/strings.h"

#include <limits>

namespace utils {

std::string toString(SpinnerArgumentType type)
{
    switch (type) {
    case SpinnerArgumentType::ordinal:
        return "ordinal";
    case SpinnerArgumentType::categorical:
        return "categorical";
    case SpinnerArgumentType::numerical:
        return "numerical";
    }
    return "";
}

SpinnerArgumentMetaData numericalArgument(std::string name, std::string description, double minimum,
                                          double maximum, std::string defaultValue, int64_t count)
{
    return {std::move(name),
            std::move(description),
            SpinnerArgumentType::numerical,
            SpinnerArgumentNumericalLimit{minimum, maximum, 1},
            isNumericalString,
            std::move(defaultValue),
            count};
}

SpinnerArgumentMetaData numericalArgument(std::string name, std::string description,
                                          std::string defaultValue, int64_t count)
{
    return {std::move(name),    std::move(description), SpinnerArgumentType::numerical, std::monostate{},
            isNumericalString, std::move(defaultValue), count};
}

const SpinnerArgumentMetaData IntegerArgumentMetaData{
    "value",
    "an integer value",
    SpinnerArgumentType::numerical,
    SpinnerArgumentNumericalLimit{static_cast<double>(std::numeric_limits<int32_t>::min()),
                                  static_cast<double>(std::numeric_limits<int32_t>::max()), 1},
    isNumericalString,
    "",
    1,
};

} // namespace utils
