#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace utils {

// (status word, message): what a route handler answers.
using SpinnerReply = std::pair<const std::string, const std::string>;
using SpinnerHandler = std::function<SpinnerReply(const std::vector<std::string>&)>;

// One unit of work: a route's handler bound to the arguments of one command.
class Spinner {
public:
    Spinner(std::string name, SpinnerHandler handler, std::vector<std::string> arguments)
        : name_(std::move(name)), handler_(std::move(handler)), arguments_(std::move(arguments))
    {
    }

    const std::string& name() const { return name_; }
    const std::vector<std::string>& arguments() const { return arguments_; }

    // Runs the handler; its exceptions reach the caller.
    SpinnerReply spin() const { return handler_(arguments_); }

private:
    std::string name_;
    SpinnerHandler handler_;
    std::vector<std::string> arguments_;
};

} // namespace utils
