#pragma once

#include "utils/router/spinner.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>

namespace utils {

// The queue between the control channel (producer) and the workers (consumers).
class SpinnerPool {
public:
    // How long dequeue() waits for work before it reports an empty pool: short, so that
    // workers notice a stop promptly, and long enough that idle workers do not spin.
    static constexpr std::chrono::milliseconds idleWait{200};

    void enqueue(Spinner spinner);

    // The oldest spinner. Waits up to idleWait for one, then throws UtilsException
    // "SpinnerPool is empty.".
    Spinner dequeue();

    size_t size() const;

private:
    mutable std::mutex mutex_;
    std::condition_variable available_;
    std::deque<Spinner> queue_;
};

} // namespace utils
