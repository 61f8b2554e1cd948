#pragma once

#include "utils/router/spinner.h"
#include "utils/router/spinnermetadata.h"

#include <map>
#include <string>
#include <vector>

namespace utils {

// The route table and the turning of a command line into a Spinner.
//
// A command is a route name followed by its arguments, separated by blanks. dispatch() gives
// the declared arguments their words in order (an argument of count c takes c words, count -1
// takes all remaining words), checks each given word with the argument's validator, fills a
// missing argument that declares a default with that default, and passes any further words
// on unchecked. A missing argument without a default is left out, so the handler reports it.
// Numerical limits are documentation: handlers check ranges themselves.
class CommandRouter {
public:
    struct Route {
        std::string name;
        std::string description;
        SpinnerMetaData metadata;
        SpinnerHandler handler;
    };

    // The built-in route that lists routes ("help") or describes one ("help ROUTE"). It is not
    // part of the table; a registered route of the same name would take its place.
    static constexpr const char* helpRoute = "help";

    virtual ~CommandRouter() = default;

    // Adds a route or replaces the one registered under the same name.
    void registerRoute(const std::string& name, const std::string& description,
                       const SpinnerMetaData& metadata, const SpinnerHandler& handler);

    // Throws UtilsRuntimeError naming the route or argument and what was expected.
    Spinner dispatch(const std::string& command) const;

    // The table in ascending byte order of route names.
    const std::map<std::string, Route>& routes() const { return routes_; }

    // The help texts the built-in route answers.
    std::string describeRoutes() const;
    std::string describeRoute(const Route& route) const;

private:
    std::vector<std::string> bindArguments(const Route& route,
                                           std::vector<std::string> words) const;
    Spinner helpSpinner(const std::vector<std::string>& words) const;

    std::map<std::string, Route> routes_;
};

} // namespace utils
