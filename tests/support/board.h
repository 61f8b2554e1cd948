#pragma once

#include "utils/platform/emulated/board.h"
#include "utils/platform/kernel.h"

#include <memory>

namespace k52test {

// A fresh emulated board installed as the process's kernel for this object's life. Declare it
// before the devices opened on it, so that they close through it before it goes.
class InstalledBoard {
public:
    InstalledBoard() { utils::platform::installKernel(board_); }
    ~InstalledBoard() { utils::platform::installKernel(nullptr); }
    InstalledBoard(const InstalledBoard&) = delete;
    InstalledBoard& operator=(const InstalledBoard&) = delete;

    utils::platform::emulated::EmulatedBoard& operator*() const { return *board_; }
    utils::platform::emulated::EmulatedBoard* operator->() const { return board_.get(); }

private:
    std::shared_ptr<utils::platform::emulated::EmulatedBoard> board_ =
        std::make_shared<utils::platform::emulated::EmulatedBoard>();
};

} // namespace k52test
