#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace utils::platform::emulated {

// The wiring between the emulated RTU, the image-sensor control device and the V4L2 capture
// model: the RTU decides when an exposure happens, the sensor control device what it looks
// like, the capture model turns both into frames.
class SensorBus {
public:
    enum class Trigger : uint32_t { manual = 0, continuous = 1 };

    // RTU side.
    void setAcquisition(bool enabled) { store(acquisition_, enabled); }
    bool acquisition() const { return acquisition_.load(); }
    void setTrigger(Trigger mode) { store(trigger_, mode); }
    Trigger trigger() const { return trigger_.load(); }
    // Frames per second in continuous mode; 0 lets the sensor run as fast as it can.
    void setFramesPerSecond(uint32_t fps) { store(fps_, fps); }
    uint32_t framesPerSecond() const { return fps_.load(); }
    // One manual trigger: one exposure.
    void pulse()
    {
        pulses_.fetch_add(1);
        changed();
    }
    uint64_t pulses() const { return pulses_.load(); }

    // Image-sensor control side.
    void setExposureUs(uint32_t exposure) { store(exposureUs_, exposure); }
    uint32_t exposureUs() const { return exposureUs_.load(); }
    void setRoiOffset(int32_t x, int32_t y)
    {
        roiX_.store(x);
        store(roiY_, y);
    }
    int32_t roiX() const { return roiX_.load(); }
    int32_t roiY() const { return roiY_.load(); }

    // Waits until something above changes or `deadline` passes; for models that sleep.
    template <typename TimePoint>
    void waitForChange(const TimePoint& deadline)
    {
        std::unique_lock lock(mutex_);
        uint64_t seen = generation_;
        cv_.wait_until(lock, deadline, [&] { return generation_ != seen; });
    }

private:
    template <typename T, typename V>
    void store(std::atomic<T>& field, V value)
    {
        field.store(value);
        changed();
    }
    void changed()
    {
        {
            std::lock_guard lock(mutex_);
            ++generation_;
        }
        cv_.notify_all();
    }

    std::atomic<bool> acquisition_{false};
    std::atomic<Trigger> trigger_{Trigger::continuous};
    std::atomic<uint32_t> fps_{30};
    std::atomic<uint64_t> pulses_{0};
    std::atomic<uint32_t> exposureUs_{10000};
    std::atomic<int32_t> roiX_{0};
    std::atomic<int32_t> roiY_{0};

    std::mutex mutex_;
    std::condition_variable cv_;
    uint64_t generation_ = 0;
};

} // namespace utils::platform::emulated
