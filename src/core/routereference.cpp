#include "core/routereference.h"

#include <sstream>

namespace k52app {

namespace {

// Table cells must not break the row: pipes are escaped and line breaks flattened.
std::string cell(const std::string& text)
{
    std::string escaped;
    for (char c : text) {
        if (c == '|')
            escaped += "\\|";
        else if (c == '\n' || c == '\r')
            escaped += ' ';
        else
            escaped += c;
    }
    return escaped;
}

std::string number(double value)
{
    std::ostringstream text;
    text.precision(12);
    text << value;
    return text.str();
}

std::string limits(const utils::SpinnerArgumentMetaData::Limits& limits)
{
    if (auto numeric = std::get_if<utils::SpinnerArgumentNumericalLimit>(&limits))
        return number(numeric->minimum) + " to " + number(numeric->maximum) + ", step " +
               number(numeric->step);
    if (auto choices = std::get_if<std::vector<std::string>>(&limits)) {
        std::string text;
        for (const auto& choice : *choices)
            text += (text.empty() ? "`" : ", `") + choice + "`";
        return text;
    }
    return "";
}

std::string count(int64_t count) { return count < 0 ? "all remaining words" : std::to_string(count); }

// "Route <a> <b>...": what a client sends, with optional arguments in brackets.
std::string usage(const utils::CommandRouter::Route& route)
{
    std::string text = route.name;
    for (const auto& argument : route.metadata.arguments) {
        std::string word = "<" + argument.name + ">";
        if (argument.count < 0)
            word += "...";
        else
            for (int64_t i = 1; i < argument.count; ++i)
                word += " <" + argument.name + ">";
        text += " " + (argument.defaultValue.empty() ? word : "[" + word + "]");
    }
    return text;
}

void renderRoute(std::ostream& out, const utils::CommandRouter::Route& route)
{
    out << "## " << route.name << "\n\n" << route.description << "\n\n";
    out << "```\n" << usage(route) << "\n```\n\n";
    if (route.metadata.arguments.empty()) {
        out << "No arguments.\n\n";
        return;
    }
    out << "| Argument | Description | Type | Limits | Default | Count |\n";
    out << "|---|---|---|---|---|---|\n";
    for (const auto& argument : route.metadata.arguments) {
        out << "| `" << argument.name << "` | " << cell(argument.description) << " | "
            << utils::toString(argument.type) << " | " << cell(limits(argument.limits)) << " | "
            << (argument.defaultValue.empty() ? "" : "`" + argument.defaultValue + "`") << " | "
            << count(argument.count) << " |\n";
    }
    out << "\n";
}

} // namespace

std::string renderRouteReference(const utils::CommandRouter& router)
{
    std::ostringstream out;
    out << "# Route reference\n\n"
        << "The daemon accepts " << router.routes().size() << " routes on its control socket.\n\n"
        << "A command is the route name and its arguments separated by blanks, ended by a carriage\n"
        << "return; an argument in brackets has a default and may be left out. The daemon answers\n"
        << "with a notice holding a status word (\"OK\" or an error word) and a message. A numerical\n"
        << "argument takes a whole decimal number; its limits say which values the device takes.\n\n"
        << "This file is generated from the route table; do not edit it by hand. Regenerate it\n"
        << "with `K52_UPDATE_ROUTE_REFERENCE=1 <build>/tests/unit_routereference_test`.\n\n";
    for (const auto& [name, route] : router.routes())
        renderRoute(out, route);
    return out.str();
}

} // namespace k52app
