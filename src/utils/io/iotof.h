#pragma once

#include "utils/io/ioregisterfile.h"
#include "utils/regmap/tofregisters.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace utils {

// The time-of-flight distance sensor: a 4x4 or 8x8 grid of zones, each measuring the distance
// to the scene in millimetres. The register map is in docs/hardware/tof.md.
//
// The constructor does not touch the device; init_tof_sensor() opens and boots it. Every
// operation takes the object's own lock, so callers on several threads need none. Device and
// timeout failures throw IOError; a sensor in the wrong state or bad data throw
// UtilsRuntimeError.
class IOToF : public IORegisterFile {
public:
    using Resolution = tof_registers::Resolution;
    using PowerMode = tof_registers::PowerMode;
    using RangingMode = tof_registers::RangingMode;
    using enum tof_registers::Resolution;
    using enum tof_registers::PowerMode;
    using enum tof_registers::RangingMode;

    explicit IOToF(std::string path, int flags = O_RDWR);
    ~IOToF() override;

    // Opens the device, checks its identity and boots it; afterwards the sensor is alive.
    void init_tof_sensor();
    // Loads the module's factory zone offsets (checked by their CRC) into the sensor.
    void apply_calibration();
    // Whether the last init_tof_sensor() succeeded.
    bool cameUp() const;
    // Throws UtilsRuntimeError unless init_tof_sensor() has succeeded.
    void throwIfDead() const;

    void get_resolution(Resolution* resolution) const;
    void set_resolution(Resolution resolution);
    // Ranging frequency in Hz: 1-60 at 4x4, 1-15 at 8x8.
    void get_frequency(unsigned char* hertz) const;
    void set_frequency(unsigned char hertz);
    void get_power_mode(PowerMode* mode) const;
    void set_power_mode(PowerMode mode);
    void get_ranging_mode(RangingMode* mode) const;
    void set_ranging_mode(RangingMode mode);
    // Integration time in microseconds.
    void get_integration_time(unsigned int* microseconds) const;
    void set_integration_time(unsigned microseconds);

    // Parameters of the cross-talk calibration: the target's reflectance, the number of
    // frames averaged and the target's distance in millimetres. The registers are 16, 8 and 16
    // bits wide and take the low bits; the sensor cannot report them back, so the getters return
    // the value last set successfully as the client gave it (or the defaults 50, 10, 1000).
    void set_calibration_reflectance_percent(unsigned long percent);
    void set_calibration_nb_samples(unsigned long samples);
    void set_calibration_distance(unsigned long millimetres);
    unsigned long calibration_reflectance_percent() const { return reflectance_; }
    unsigned long calibration_nb_samples() const { return samples_; }
    unsigned long calibration_distance() const { return distance_; }
    // Measurements per request as clients configure it; kept for them only, the sensor has no
    // such setting.
    void set_measurement_count(unsigned long count) { measurementCount_ = count; }
    unsigned long measurement_count() const { return measurementCount_; }
    // Measures the cover glass cross-talk against the target described above.
    void xtalk_calibration();

    void start_ranging();
    void stop_ranging();
    // Takes one measurement (starting and stopping ranging around it unless ranging already
    // runs) and keeps its distances for results().
    void shot();
    // The distances of the last shot in millimetres, one per zone in zone order (row by row);
    // empty before the first shot.
    std::vector<uint16_t> results() const;

private:
    void command(tof_registers::Command what) const;
    void requireAwake() const;

    mutable std::mutex mutex_;
    bool alive_ = false;
    bool ranging_ = false;
    std::vector<uint16_t> results_;
    // Atomic so that reading them back never waits behind a measurement holding the lock.
    std::atomic<unsigned long> reflectance_{50};
    std::atomic<unsigned long> samples_{10};
    std::atomic<unsigned long> distance_{1000};
    std::atomic<unsigned long> measurementCount_{1};
};

} // namespace utils
