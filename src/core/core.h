#pragma once

#include "core/commandrouter.h"
#include "core/k52resourcemanager.h"
#include "core/middleware/ackreport.h"
#include "core/middleware/capture.h"
#include "utils/router/spinnerpool.h"

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace k52app {

class ConfigParser;

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
    // Discards queued work, stops every thread and joins it. Safe to call more than once.
    void terminate();

    // Takes a started thread; throws UtilsRuntimeError "Maximum number of threads reached."
    // beyond the budget.
    void addWorker(std::thread worker);

    uint32_t threadCount() const { return threadCount_; }
    K52ResourceManager& resources() { return resources_; }

private:
    void processSpinners();
    void ctrlSocketHandler();
    void ctrlProducerTask(int client);
    void streamSocketHandler();
    void streamConsumerTask(int client);
    void heartbeat(bool& failed);

    K52ResourceManager resources_;
    Capture capture_;
    AckReport ackReport_;
    K52CommandRouter router_;
    utils::SpinnerPool spinnerPool_;
    std::vector<std::thread> workers;
    std::atomic<bool> running;
    uint32_t threadCount_;
};

} // namespace k52app
