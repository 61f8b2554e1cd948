#pragma once

#include <linux/videodev2.h>

#include <array>
#include <cstdint>

// What the emulated capture device offers: its pixel array, formats, frame sizes and controls.
namespace utils::platform::emulated::sensor {

// The sensor's pixel array; crop rectangles and the scene live in these coordinates.
inline constexpr uint32_t sensorWidth = 2472;
inline constexpr uint32_t sensorHeight = 2064;
// Rows are padded to this many bytes, as a DMA engine with 64-byte bursts would.
inline constexpr uint32_t rowAlignment = 64;
// Exposure at which the scene shows its nominal brightness.
inline constexpr uint32_t nominalExposureUs = 10000;

inline constexpr std::array<v4l2_frmsize_discrete, 3> frameSizes{{{640, 480}, {1456, 1088}, {2472, 2064}}};

struct PixelFormat {
    uint32_t fourcc;
    uint32_t channels;
    const char* description;
};
inline constexpr std::array<PixelFormat, 2> pixelFormats{{
    {V4L2_PIX_FMT_GREY, 1, "8-bit Greyscale"},
    {V4L2_PIX_FMT_RGB24, 3, "24-bit RGB 8-8-8"},
}};


const PixelFormat* findFormat(uint32_t fourcc);

enum TestPattern : int32_t { gradient = 0, colorBars = 1, checkerboard = 2, flatField = 3 };

struct ControlSpec {
    uint32_t id;
    uint32_t type;
    const char* name;
    int32_t minimum;
    int32_t maximum;
    int32_t step;
    int32_t defaultValue;
    uint32_t flags;
    std::array<const char*, 4> menu; // by menu index; null marks an index the device skips
    std::array<int64_t, 2> integerMenu{}; // the values of an integer menu, by index
};

inline constexpr uint32_t classFlags = V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY;

// In ascending id, as the NEXT_CTRL enumeration walks them.
inline constexpr std::array<ControlSpec, 10> controlSpecs{{
    {V4L2_CID_USER_CLASS, V4L2_CTRL_TYPE_CTRL_CLASS, "User Controls", 0, 0, 0, 0, classFlags, {}},
    {V4L2_CID_BRIGHTNESS, V4L2_CTRL_TYPE_INTEGER, "Brightness", -64, 64, 1, 0, 0, {}},
    {V4L2_CID_GAIN, V4L2_CTRL_TYPE_INTEGER, "Gain", 0, 24, 1, 0, 0, {}},
    {V4L2_CID_HFLIP, V4L2_CTRL_TYPE_BOOLEAN, "Horizontal Flip", 0, 1, 1, 0, 0, {}},
    {V4L2_CID_VFLIP, V4L2_CTRL_TYPE_BOOLEAN, "Vertical Flip", 0, 1, 1, 0, 0, {}},
    {V4L2_CID_CAMERA_CLASS, V4L2_CTRL_TYPE_CTRL_CLASS, "Camera Controls", 0, 0, 0, 0, classFlags,
     {}},
    {V4L2_CID_EXPOSURE_AUTO, V4L2_CTRL_TYPE_MENU, "Auto Exposure", 0, 3, 1, 1, 0,
     {"Auto Mode", "Manual Mode", nullptr, "Aperture Priority Mode"}},
    {V4L2_CID_IMAGE_PROC_CLASS, V4L2_CTRL_TYPE_CTRL_CLASS, "Image Processing Controls", 0, 0, 0,
     0, classFlags, {}},
    // The sensor's data-lane frequencies in Hz, as sensor drivers report them.
    {V4L2_CID_LINK_FREQ, V4L2_CTRL_TYPE_INTEGER_MENU, "Link Frequency", 0, 1, 1, 0,
     V4L2_CTRL_FLAG_READ_ONLY, {}, {594000000, 297000000}},
    {V4L2_CID_TEST_PATTERN, V4L2_CTRL_TYPE_MENU, "Test Pattern", 0, 3, 1, gradient, 0,
     {"Gradient", "Color Bars", "Checkerboard", "Flat Field"}},
}};

const ControlSpec* findControl(uint32_t id);

uint32_t roundUp(uint32_t value, uint32_t alignment);
// The padded layout of one frame at `format` and `size`.
v4l2_pix_format layout(const PixelFormat& format, v4l2_frmsize_discrete size);
// The format the device grants for a request: an offered fourcc (GREY otherwise) at the nearest
// offered size, as drivers adjust rather than refuse.
v4l2_pix_format adjustFormat(const v4l2_pix_format& wanted);

} // namespace utils::platform::emulated::sensor
