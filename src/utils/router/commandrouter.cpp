#include "utils/router/commandrouter.h"

#include "utils/base/exceptions.h"

#include <sstream>

namespace utils {

namespace {

std::vector<std::string> splitWords(const std::string& command)
{
    std::istringstream stream(command);
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

std::string describeLimits(const SpinnerArgumentMetaData::Limits& limits)
{
    std::ostringstream text;
    if (auto numeric = std::get_if<SpinnerArgumentNumericalLimit>(&limits)) {
        text.precision(12);
        text << numeric->minimum << ".." << numeric->maximum;
    } else if (auto choices = std::get_if<std::vector<std::string>>(&limits)) {
        for (size_t i = 0; i < choices->size(); ++i)
            text << (i ? "|" : "") << (*choices)[i];
    }
    return text.str();
}

std::string expectation(const SpinnerArgumentMetaData& argument)
{
    std::string text = toString(argument.type);
    std::string limits = describeLimits(argument.limits);
    if (text.empty())
        text = "a value";
    else
        text = "a " + text + " value";
    if (!limits.empty())
        text += " (" + limits + ")";
    return text;
}

} // namespace

void CommandRouter::registerRoute(const std::string& name, const std::string& description,
                                  const SpinnerMetaData& metadata, const SpinnerHandler& handler)
{
    routes_[name] = Route{name, description, metadata, handler};
}

Spinner CommandRouter::dispatch(const std::string& command) const
{
    std::vector<std::string> words = splitWords(command);
    if (words.empty())
        throw UtilsRuntimeError("Empty command: expected a route name.");
    std::string name = words.front();
    words.erase(words.begin());

    auto it = routes_.find(name);
    if (it == routes_.end()) {
        if (name == helpRoute)
            return helpSpinner(words);
        throw UtilsRuntimeError("Unknown route '" + name + "'. Send \"help\" for the list of routes.");
    }
    const Route& route = it->second;
    return Spinner(route.name, route.handler, bindArguments(route, std::move(words)));
}

std::vector<std::string> CommandRouter::bindArguments(const Route& route,
                                                      std::vector<std::string> words) const
{
    std::vector<std::string> bound;
    size_t next = 0;
    for (const auto& argument : route.metadata.arguments) {
        size_t wanted = argument.count < 0 ? words.size() - std::min(next, words.size())
                                           : static_cast<size_t>(argument.count);
        size_t taken = 0;
        for (; taken < wanted && next < words.size(); ++taken, ++next) {
            const std::string& word = words[next];
            if (argument.validator && !argument.validator(word))
                throw UtilsRuntimeError(route.name + ": argument '" + argument.name + "' expects " +
                                        expectation(argument) + ", got '" + word + "'.");
            bound.push_back(word);
        }
        if (taken == 0 && next >= words.size()) {
            if (argument.defaultValue.empty())
                return bound; // the handler reports what is missing
            bound.push_back(argument.defaultValue);
        }
    }
    bound.insert(bound.end(), words.begin() + static_cast<long>(std::min(next, words.size())),
                 words.end());
    return bound;
}

std::string CommandRouter::describeRoutes() const
{
    std::string text = std::to_string(routes_.size()) + " routes:";
    for (const auto& [name, route] : routes_)
        text += " " + name;
    return text;
}

std::string CommandRouter::describeRoute(const Route& route) const
{
    std::string text = route.name + " - " + route.description;
    for (const auto& argument : route.metadata.arguments) {
        text += "; " + argument.name + ": " + argument.description + " [" + expectation(argument);
        if (!argument.defaultValue.empty())
            text += ", default " + argument.defaultValue;
        text += ", count " + std::to_string(argument.count) + "]";
    }
    return text;
}

Spinner CommandRouter::helpSpinner(const std::vector<std::string>& words) const
{
    auto handler = [this](const std::vector<std::string>& arguments) -> SpinnerReply {
        if (arguments.empty())
            return {"OK", describeRoutes()};
        auto it = routes_.find(arguments.front());
        if (it == routes_.end())
            return {"Error", "help: unknown route '" + arguments.front() + "'."};
        return {"OK", describeRoute(it->second)};
    };
    return Spinner(helpRoute, handler, words);
}

} // namespace utils
