#include "utils/router/spinnerpool.h"

#include "utils/base/exceptions.h"

namespace utils {

void SpinnerPool::enqueue(Spinner spinner)
{
    {
        std::lock_guard lock(mutex_);
        queue_.push_back(std::move(spinner));
    }
    available_.notify_one();
}

Spinner SpinnerPool::dequeue()
{
    std::unique_lock lock(mutex_);
    if (!available_.wait_for(lock, idleWait, [this] { return !queue_.empty(); }))
        throw UtilsException("SpinnerPool is empty.");
    Spinner next = std::move(queue_.front());
    queue_.pop_front();
    return next;
}

size_t SpinnerPool::size() const
{
    std::lock_guard lock(mutex_);
    return queue_.size();
}

} // namespace utils
