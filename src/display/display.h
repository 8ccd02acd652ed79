// Drawing bitmaps into the platform layer's device contexts, shared by the
// display entry points (draw.cpp, the geometry, the other drawings, device
// bitmaps, printing and animation built on it).
//
// Every drawing goes through render(): a source (a bitmap's crop rectangle,
// or a device bitmap) is scaled into the rectangle in the orientation of the
// display angle, mirrored for negative sizes, clipped to the surface, and
// combined with what the surface holds (raster operation, transparent
// colour, or a blend).
#pragma once

#include <cstdint>
#include <vector>

#include "core/bitmap.h"
#include "platform/surface.h"

namespace tesslin::display {

// Columns x0 .. x0 + n - 1 of image row y (0 = top) as red, green, blue
// bytes into `out` (3 n bytes), whatever the bitmap's depth or storage.
// `scratch` holds an expanded run record between calls.
void row_to_rgb(BitmapObject* obj, int32_t y, int32_t x0, int32_t n, uint8_t* out,
                std::vector<uint8_t>& scratch);

// What render() draws from: a region of `width` x `height` pixels read a
// row at a time.
class Source {
public:
    virtual ~Source() = default;
    int32_t width = 0, height = 0;
    // Columns x0 .. x0 + n - 1 of row y (region coordinates, 0 = top) as
    // RGB; when `keyed` is not null, also 1 for each pixel that has the
    // transparent colour, else 0.
    virtual void row(int32_t y, int32_t x0, int32_t n, uint8_t* rgb, uint8_t* keyed) = 0;
};

// The crop rectangle of a bitmap. The transparent colour is a palette index
// (its low byte) for images of 8 bits or fewer, a COLORREF for deeper ones.
class BitmapSource final : public Source {
public:
    explicit BitmapSource(BitmapObject* obj);
    void row(int32_t y, int32_t x0, int32_t n, uint8_t* rgb, uint8_t* keyed) override;

private:
    BitmapObject* obj_;
    std::vector<uint8_t> scratch_;
    // The bitmap's tone table (gamma, brightness, contrast) when any of its
    // fields is set, applied to every channel of what is drawn.
    bool toned_ = false;
    uint8_t tone_[256];
};

// The pixels of a surface (a device bitmap), all of it.
class SurfaceSource final : public Source {
public:
    explicit SurfaceSource(const platform::Surface& s);
    void row(int32_t y, int32_t x0, int32_t n, uint8_t* rgb, uint8_t* keyed) override;

private:
    platform::Surface s_;
};

enum class Filter : uint8_t {
    kNearest,  // each target pixel takes the source pixel it falls on
    kAverage,  // each target pixel averages the source pixels it covers
               // (when enlarging: the one it falls on)
};

struct Placement {
    // Target rectangle; a negative width mirrors the source left to right,
    // a negative height top to bottom (in the source's own orientation).
    int32_t x = 0, y = 0, width = 0, height = 0;
    // Clockwise quarter turns of the source: 0, 90, 180 or 270 degrees.
    int32_t angle = 0;
    // Only this part of the surface is touched (clip_width 0: all of it).
    int32_t clip_x = 0, clip_y = 0, clip_width = 0, clip_height = 0;
};

struct Blend {
    Filter filter = Filter::kNearest;
    // Windows raster operation (0x00CC0020 copies); the brush is white.
    uint32_t rop = 0x00CC0020;
    // Pixels of the source's transparent colour leave the surface as it was.
    bool transparent = false;
    // 1 .. 100: the source is laid over the surface at this opacity (the
    // raster operation is then not used); 100 or more: opaque.
    int32_t opacity = 100;
};

// Draws `source` into the surface of `dc`. 0; IMG_ERR_BAD_IMAGE when dc is
// not a live device context; IMG_ERR_DISPLAY_RECT when a width or height of
// the placement or of the source is 0; IMG_ERR_UNSUPPORTED for an angle
// that is not a quarter turn.
int32_t render(Source& source, intptr_t dc, const Placement& where, const Blend& how);

// Draws the crop rectangle of `obj` stretched (nearest neighbour) over the
// rectangle (x, y, |width|, |height|) of a device context in the bitmap's
// display angle and raster operation, mirrored across for a negative width
// and upside down for a negative height; what falls outside the surface is
// clipped. 0, IMG_ERR_BAD_IMAGE for a handle that is not a device context,
// IMG_ERR_DISPLAY_RECT for a width or height of 0, IMG_ERR_MEMORY without a
// DIB.
int32_t draw_crop(BitmapObject* obj, intptr_t dc, int32_t x, int32_t y, int32_t width,
                  int32_t height);
// The same with a choice of filter, transparency and opacity.
int32_t draw_crop(BitmapObject* obj, intptr_t dc, int32_t x, int32_t y, int32_t width,
                  int32_t height, const Blend& how);

// Asks the display callback (IMGLOW_set_dispfunc) whether to draw: 1 to go
// on, else the callback's result (below 1), which the caller returns.
int32_t ask_display_callback(BitmapObject* obj);

// Marks a bitmap busy for the length of a drawing (IMG_delete_bitmap waits).
class BusyMark {
public:
    explicit BusyMark(BitmapObject* obj);
    ~BusyMark();
    BusyMark(const BusyMark&) = delete;
    BusyMark& operator=(const BusyMark&) = delete;

private:
    BitmapObject* obj_;
};

// IMG_display_bitmap: stores the display rectangle (sizes as absolute
// values), asks the display callback (IMGLOW_set_dispfunc; a result below 1
// cancels and is returned) and draws. IMG_ERR_HANDLE for a bad handle.
int32_t display_bitmap(int32_t handle, intptr_t dc, int32_t x, int32_t y, int32_t width,
                       int32_t height);

// |v|, INT32_MAX for INT32_MIN.
int32_t magnitude(int32_t v);

// The displayed size of a bitmap's crop rectangle: width and height swapped
// for display angles 90 and 270.
void displayed_crop(const BitmapObject* obj, int32_t* width, int32_t* height);

// The largest picture of a `width` x `height` source that fits an area of
// `area_width` x `area_height` with the same aspect ratio, and its offset
// centring it in the area: the height at full width is taken when it fits,
// else the width at full height. Sizes are at least 1.
struct Fit {
    int32_t width, height, x_offset, y_offset;
};
Fit aspect_fit(int32_t width, int32_t height, int32_t area_width, int32_t area_height);

}  // namespace tesslin::display
