#include "core/core.h"

#include "utils/log/logrecord.h"
#include "utils/base/exceptions.h"

#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>

namespace k52app {

namespace {

constexpr uint32_t minimumThreads = 4;
constexpr auto heartbeatPeriod = std::chrono::seconds(3);
constexpr auto emptyPoolPause = std::chrono::milliseconds(100);
const char* const spinnerPoolEmpty = "SpinnerPool is empty.";

sigset_t stopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

// Threads the core starts leave SIGINT and SIGTERM to the thread that called run(), so the
// handler never runs on a thread that terminate() is about to join.
template <typename Body>
std::thread startThread(Body body)
{
    return std::thread([body] {
        const sigset_t signals = stopSignals();
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        body();
    });
}

// Holds back a second stop signal on this thread while the first stop runs: its handler would
// otherwise interrupt a record and wait for the log mutex that this very thread holds. It is
// delivered when the stop is done and finds the stop already made.
class StopSignalsDeferred {
public:
    StopSignalsDeferred()
    {
        const sigset_t signals = stopSignals();
        pthread_sigmask(SIG_BLOCK, &signals, &previous_);
    }
    ~StopSignalsDeferred() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    StopSignalsDeferred(const StopSignalsDeferred&) = delete;
    StopSignalsDeferred& operator=(const StopSignalsDeferred&) = delete;

private:
    sigset_t previous_;
};

} // namespace

Core::Core(const ConfigParser& config, unsigned hardwareConcurrency)
    : components_(config),
      running(true),
      threadCount_(hardwareConcurrency < 5 ? minimumThreads : hardwareConcurrency)
{
    K52_LOG(info) << "Hardware max concurrency: " << hardwareConcurrency;
    if (hardwareConcurrency < minimumThreads)
        K52_LOG(warn) << "Minimum number of required threads is " << minimumThreads << ".";
    K52_LOG(info) << "Core: initialized with " << threadCount_ << " threads.";
    router_.registerK52Commands();
}

// The button's edge callbacks send through the reporter; stop them before it goes.
Core::~Core()
{
    // Threads still running here (run() left by an exception) would end the process when
    // destroyed; the stop makes any later terminate() leave them alone.
    stopping_ = true;
    running = false;
    joinWorkers();
    try {
        resources_.button().close();
    } catch (const std::exception& e) {
        K52_LOG(warn) << "Core: button not closed: " << e.what();
    }
}

void Core::addWorker(std::thread worker)
{
    if (workers.size() >= threadCount_)
        throw utils::UtilsRuntimeError("Maximum number of threads reached.");
    workers.push_back(std::move(worker));
}

void Core::run()
{
    // `running` is set at construction and never again: a stop that came before run() stands.
    K52_LOG(info) << "Core: running...";
    addWorker(startThread([this] { ctrlSocketHandler(); }));
    addWorker(startThread([this] { streamSocketHandler(); }));
    for (uint32_t i = 0; i < threadCount_ - 3; ++i)
        addWorker(startThread([this] { processSpinners(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    K52_LOG(info) << "Core: spinner workers count = " << threadCount_ - 3;
    K52_LOG(info) << "Core: started.";

    bool heartbeatFailed = false;
    while (running) {
        if (!heartbeatFailed)
            heartbeat(heartbeatFailed);
        std::this_thread::sleep_for(heartbeatPeriod);
    }
}

void Core::heartbeat(bool& failed)
{
    try {
        std::lock_guard lock(resources_.getMutex(K52ResourceGroups::RTU));
        resources_.rtu().triggerHeartbeat();
    } catch (const utils::UtilsError& e) {
        K52_LOG(warn) << "Core:" << e.what();
        failed = true;
    }
}

void Core::processSpinners()
{
    const auto id = std::this_thread::get_id();
    K52_LOG(info) << "WORKER-" << id << ": Started.";
    while (running) {
        std::optional<utils::Spinner> spinner;
        try {
            spinner.emplace(spinnerPool_.dequeue());
        } catch (const utils::UtilsException& e) {
            // The pool's exception carries its own copy of the text, so this identity test
            // never holds and the worker goes straight back to the pool's bounded wait.
            if (e.what() == spinnerPoolEmpty)
                std::this_thread::sleep_for(emptyPoolPause);
            continue;
        }
        try {
            K52_LOG(info) << "WORKER-" << id << ":: Spinning " << spinner->name();
            auto [status, message] = spinner->spin();
            ackReport_.sendColoredMessage(status == "OK" ? AckReport::Olive : AckReport::Orange,
                                          status + " : " + message);
            K52_LOG(info) << "Status: " << status;
            K52_LOG(info) << "Result: " << message;
        } catch (const std::exception& e) {
            // A failing command never stops a worker, and a client that has gone must not
            // either: the error notice itself may fail to send.
            std::string text = std::string(std::strerror(errno)) + " : " + e.what();
            try {
                ackReport_.sendColoredMessage(AckReport::Red, text);
            } catch (const std::exception& sendError) {
                K52_LOG(warn) << "WORKER-" << id << ": " << text << " (not sent: " << sendError.what() << ")";
            }
        }
    }
}

void Core::terminate()
{
    // A nested call must neither wait for the interrupted one (same thread) nor join again.
    if (stopping_.exchange(true)) {
        running.store(false, std::memory_order_release);
        return;
    }
    StopSignalsDeferred deferred;
    K52_LOG(info) << "Core: terminating...";
    K52_LOG(info) << "Remaining spinners in queue: " << spinnerPool_.size();
    // The bound shrinks as the counter grows, so about half of the queue is discarded here;
    // workers may still run the rest until they see the stop.
    for (size_t discarded = 0; discarded < spinnerPool_.size(); ++discarded) {
        try {
            utils::Spinner spinner = spinnerPool_.dequeue();
            K52_LOG(info) << "\tDiscarding Spinner: " << spinner.name();
        } catch (const utils::UtilsException&) {
            break; // the workers emptied it meanwhile
        }
    }
    running.store(false, std::memory_order_release);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    joinWorkers();
    K52_LOG(info) << "Core: terminated.";
}

void Core::joinWorkers()
{
    for (auto& worker : workers) {
        if (worker.joinable())
            worker.join();
    }
}

} // namespace k52app
