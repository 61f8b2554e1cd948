#include "support/routerharness.h"

#include "utils/platform/kernel.h"

#include <gtest/gtest.h>

namespace k52test {

RouterHarness::RouterHarness(const EmulatedConfig::Overrides& overrides) : config(overrides)
{
    const char* argv[] = {"k52app", "-c", config.path().c_str()};
    parser = std::make_unique<k52app::ConfigParser>(3, argv);
    utils::platform::selectPlatform("emulated", parser->values);
    board_ = std::dynamic_pointer_cast<utils::platform::emulated::EmulatedBoard>(
        utils::platform::installKernel(nullptr));
    utils::platform::installKernel(board_);
    components_ = std::make_unique<k52app::CoreComponents>(*parser);
    resources = &components_->resources;
    capture = &components_->capture;
    router = &components_->router;
    router->registerK52Commands();
}

RouterHarness::~RouterHarness()
{
    components_.reset();
    utils::platform::installKernel(nullptr);
}

k52app::RouteReply RouterHarness::run(const std::string& command)
{
    return router->dispatch(command).spin();
}

void expectExchanges(RouterHarness& h, const std::vector<Exchange>& exchanges)
{
    for (const auto& e : exchanges) {
        auto [status, message] = h.run(e.command);
        EXPECT_EQ(status, e.status) << e.command;
        if (e.message) {
            EXPECT_EQ(message, e.message) << e.command;
        }
    }
}

} // namespace k52test
