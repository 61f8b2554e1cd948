#pragma once

#include "core/commandrouter.h"
#include "core/k52resourcemanager.h"
#include "core/middleware/ackreport.h"
#include "core/middleware/capture.h"
#include "utils/router/spinnerpool.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace k52app {

class ConfigParser;

// The components every route runs against, built in the order they depend on each other and
// released in reverse. Routes are registered by whoever owns them, once its own start-up is
// logged.
struct CoreComponents {
    explicit CoreComponents(const ConfigParser& config)
        : resources(config), capture(resources), ackReport(resources), router(resources, capture, ackReport)
    {
    }

    K52ResourceManager resources;
    Capture capture;
    AckReport ackReport;
    K52CommandRouter router;
};

// Owns every long-lived component and the daemon's threads: the control and stream channels,
// the spinner workers, and (on the thread that calls run()) the RTU heartbeat.
class Core {
public:
    // `hardwareConcurrency` is the processor count the thread budget follows; tests pass
    // their own to exercise one or several workers.
    explicit Core(const ConfigParser& config,
                  unsigned hardwareConcurrency = std::thread::hardware_concurrency());
    ~Core();
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    // Starts the threads and sends heartbeats until terminate().
    void run();
    // Discards queued work, stops every thread and joins it. Safe to call more than once: a
    // second signal interrupts the first call on its own thread, so any later call only makes
    // sure the threads are told to stop and returns at once.
    void terminate();

    // Takes a started thread; throws UtilsRuntimeError "Maximum number of threads reached."
    // beyond the budget.
    void addWorker(std::thread worker);

    uint32_t threadCount() const { return threadCount_; }
    K52ResourceManager& resources() { return resources_; }

private:
    // What tells the control and the stream channel apart; the loops are shared.
    struct Channel {
        const char* name; // "CTRL" or "STREAM"
        utils::TCPSocket& socket;
        std::mutex& group;
        bool lockAccept; // the control socket accepts under its group, the stream socket not
    };
    Channel controlChannel();
    Channel streamChannel();
    // Accepts one client at a time until the daemon stops; `serve` handles each client.
    void acceptClients(const Channel& channel, void (Core::*serve)(int));
    // Receives payloads from `client` until it leaves or the daemon stops, handing each to
    // `consume`; then stops any stream and closes the client.
    void receiveUntilGone(const Channel& channel, int client,
                          const std::function<void(const std::string&)>& consume);
    void handleCommand(const std::string& payload);

    void processSpinners();
    void ctrlSocketHandler();
    void ctrlProducerTask(int client);
    void streamSocketHandler();
    void streamConsumerTask(int client);
    void heartbeat(bool& failed);
    void joinWorkers();

    CoreComponents components_;
    K52ResourceManager& resources_ = components_.resources;
    Capture& capture_ = components_.capture;
    AckReport& ackReport_ = components_.ackReport;
    K52CommandRouter& router_ = components_.router;
    utils::SpinnerPool spinnerPool_;
    std::vector<std::thread> workers;
    std::atomic<bool> running;
    // Set by the first terminate(); lock-free, so a signal handler may test it.
    std::atomic<bool> stopping_{false};
    uint32_t threadCount_;
};

} // namespace k52app
