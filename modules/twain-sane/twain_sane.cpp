// libtesslin-twain.so: a data source manager with one data source, a SANE
// device. The scanning operations of the library load it and call DSM_Entry
// only; this file answers the manager's and the source's side of each call
// they make.
//
// The device: $TESSLIN_SANE_DEVICE, else the first device SANE lists. After
// opening it, $TESSLIN_SANE_OPTIONS ("name=value;name=value") sets extra
// backend options. The capabilities map onto SANE options:
//   pixel type, bit depth   "mode" (Lineart, else Gray with depth 1; Gray;
//                           Color) and "depth"
//   units, image layout     the scan area "tl-x" "tl-y" "br-x" "br-y" (mm)
//   x resolution            "resolution"
//   feeder enabled          "source" = "Automatic Document Feeder" (or a
//                           value naming a feeder / ADF)
//   duplex enabled          a "source" value naming duplex
// Only what the application set is imposed; the rest stays as the backend
// has it. There are no dialogs: showing the user interface behaves as if the
// user accepted the current settings.
//
// Pages are read whole when they are scanned: the first when the source is
// enabled, each next one (feeder) when a transfer ends, so that the pending
// count is exact. A feeder that runs out (SANE_STATUS_NO_DOCS) ends the
// batch; any other failure makes the next transfer fail.
#include <sane/sane.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "scan/twain.h"
#include "tesslin/tesslin.h"

namespace {

struct Page {
    SANE_Parameters params{};
    std::vector<uint8_t> data;
    int32_t lines = 0;
};

struct Source {
    bool sane_up = false;
    SANE_Handle handle = nullptr;
    std::string device;
    bool enabled = false;
    bool scanning = false;          // sane_start was called and not cancelled
    std::vector<uint16_t> events;   // messages waiting for DAT_EVENT
    bool page_ready = false;        // a transfer is ready (state 6/7)
    bool page_failed = false;       // the next transfer fails (jam, I/O error)
    bool feeder_empty = false;      // the feeder reported no documents
    Page page;
    std::vector<uint8_t> coded;     // the Group 4 data of a memory transfer
    size_t coded_at = 0;
    bool coded_valid = false;

    // What the application asked for (and whether it asked).
    int32_t pixel_type = TWPT_BW;
    int32_t bit_depth = 1;
    bool pixel_set = false, depth_set = false;
    int32_t units = TWUN_INCHES;
    double resolution = 300;
    bool resolution_set = false;
    TW_FRAME frame{};
    bool frame_set = false;
    bool feeder = false, feeder_set = false;
    bool duplex = false;
    int32_t compression = TWCP_NONE;
    int32_t autofeed = 1;
};

bool g_manager_open = false;
Source g_src;
bool g_source_open = false;

// ---- SANE options --------------------------------------------------------

int find_option(const char* name) {
    if (!g_src.handle) return -1;
    SANE_Int count = 0;
    if (sane_control_option(g_src.handle, 0, SANE_ACTION_GET_VALUE, &count, nullptr) !=
        SANE_STATUS_GOOD)
        return -1;
    for (int i = 1; i < count; ++i) {
        const SANE_Option_Descriptor* d = sane_get_option_descriptor(g_src.handle, i);
        if (d && d->name && std::strcmp(d->name, name) == 0) return i;
    }
    return -1;
}

std::string lower(std::string s) {
    for (char& c : s) c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// The string values an option allows (empty when it is not a string list).
std::vector<std::string> option_choices(int index) {
    std::vector<std::string> out;
    if (index < 0) return out;
    const SANE_Option_Descriptor* d = sane_get_option_descriptor(g_src.handle, index);
    if (!d || d->type != SANE_TYPE_STRING || d->constraint_type != SANE_CONSTRAINT_STRING_LIST)
        return out;
    for (const SANE_String_Const* s = d->constraint.string_list; s && *s; ++s) out.push_back(*s);
    return out;
}

bool set_string(int index, const std::string& value) {
    if (index < 0) return false;
    const SANE_Option_Descriptor* d = sane_get_option_descriptor(g_src.handle, index);
    if (!d || d->type != SANE_TYPE_STRING || !SANE_OPTION_IS_ACTIVE(d->cap)) return false;
    std::vector<char> buffer(std::max<size_t>(size_t(d->size), value.size() + 1), 0);
    std::memcpy(buffer.data(), value.c_str(), value.size());
    return sane_control_option(g_src.handle, index, SANE_ACTION_SET_VALUE, buffer.data(),
                               nullptr) == SANE_STATUS_GOOD;
}

std::string get_string(int index) {
    if (index < 0) return {};
    const SANE_Option_Descriptor* d = sane_get_option_descriptor(g_src.handle, index);
    if (!d || d->type != SANE_TYPE_STRING || d->size < 1) return {};
    std::vector<char> buffer(size_t(d->size) + 1, 0);
    if (sane_control_option(g_src.handle, index, SANE_ACTION_GET_VALUE, buffer.data(),
                            nullptr) != SANE_STATUS_GOOD)
        return {};
    return buffer.data();
}

// A number option (integer or fixed) set from a double.
bool set_number(int index, double value) {
    if (index < 0) return false;
    const SANE_Option_Descriptor* d = sane_get_option_descriptor(g_src.handle, index);
    if (!d || !SANE_OPTION_IS_ACTIVE(d->cap) || d->size < int(sizeof(SANE_Word))) return false;
    SANE_Word word;
    if (d->type == SANE_TYPE_FIXED)
        word = SANE_FIX(value);
    else if (d->type == SANE_TYPE_INT || d->type == SANE_TYPE_BOOL)
        word = SANE_Word(value + (value < 0 ? -0.5 : 0.5));
    else
        return false;
    // Array options (a few backends) take the value in every element.
    std::vector<SANE_Word> words(size_t(d->size) / sizeof(SANE_Word), word);
    return sane_control_option(g_src.handle, index, SANE_ACTION_SET_VALUE, words.data(),
                               nullptr) == SANE_STATUS_GOOD;
}

bool get_number(int index, double* out) {
    if (index < 0) return false;
    const SANE_Option_Descriptor* d = sane_get_option_descriptor(g_src.handle, index);
    if (!d || !SANE_OPTION_IS_ACTIVE(d->cap) || d->size < int(sizeof(SANE_Word))) return false;
    std::vector<SANE_Word> words(size_t(d->size) / sizeof(SANE_Word), 0);
    if (sane_control_option(g_src.handle, index, SANE_ACTION_GET_VALUE, words.data(), nullptr) !=
        SANE_STATUS_GOOD)
        return false;
    *out = d->type == SANE_TYPE_FIXED ? SANE_UNFIX(words[0]) : double(words[0]);
    return true;
}

// "name=value;..." from the environment: each option set by its type.
void apply_extra_options() {
    const char* text = std::getenv("TESSLIN_SANE_OPTIONS");
    if (!text) return;
    std::string all = text;
    size_t start = 0;
    while (start <= all.size()) {
        size_t end = all.find(';', start);
        if (end == std::string::npos) end = all.size();
        const std::string item = all.substr(start, end - start);
        start = end + 1;
        const size_t eq = item.find('=');
        if (eq == std::string::npos || eq == 0) continue;
        const std::string name = item.substr(0, eq), value = item.substr(eq + 1);
        const int index = find_option(name.c_str());
        if (index < 0) continue;
        const SANE_Option_Descriptor* d = sane_get_option_descriptor(g_src.handle, index);
        if (!d) continue;
        if (d->type == SANE_TYPE_STRING) {
            set_string(index, value);
        } else if (d->type == SANE_TYPE_BOOL) {
            const std::string v = lower(value);
            set_number(index, (v == "yes" || v == "true" || v == "1" || v == "on") ? 1 : 0);
        } else {
            set_number(index, std::atof(value.c_str()));
        }
    }
}

// The "source" value for the feeder (duplex or not), or "" when none.
std::string feeder_value(bool duplex) {
    for (const std::string& v : option_choices(find_option("source"))) {
        const std::string l = lower(v);
        const bool is_feeder = l.find("feeder") != std::string::npos ||
                               l.find("adf") != std::string::npos;
        const bool is_duplex = l.find("duplex") != std::string::npos;
        if (is_feeder && is_duplex == duplex) return v;
        if (duplex && is_duplex) return v;
    }
    if (!duplex)
        for (const std::string& v : option_choices(find_option("source")))
            if (v == "Automatic Document Feeder") return v;
    return {};
}

std::string flatbed_value() {
    for (const std::string& v : option_choices(find_option("source"))) {
        const std::string l = lower(v);
        if (l.find("feeder") == std::string::npos && l.find("adf") == std::string::npos &&
            l.find("duplex") == std::string::npos)
            return v;
    }
    return {};
}

bool source_is_feeder() {
    const std::string l = lower(get_string(find_option("source")));
    return l.find("feeder") != std::string::npos || l.find("adf") != std::string::npos ||
           l.find("duplex") != std::string::npos;
}

// The mode value whose lower-case name contains one of the words.
std::string mode_value(std::initializer_list<const char*> words) {
    for (const std::string& v : option_choices(find_option("mode"))) {
        const std::string l = lower(v);
        for (const char* w : words)
            if (l.find(w) != std::string::npos) return v;
    }
    return {};
}

// Imposes what the application set, before a scan starts.
void apply_settings() {
    Source& s = g_src;
    if (s.feeder_set) {
        const std::string v = s.feeder ? feeder_value(s.duplex) : flatbed_value();
        if (!v.empty()) set_string(find_option("source"), v);
    }
    if (s.pixel_set) {
        const int mode = find_option("mode");
        const int depth = find_option("depth");
        if (s.pixel_type == TWPT_RGB) {
            set_string(mode, mode_value({"color", "colour"}));
            set_number(depth, 8);
        } else if (s.pixel_type == TWPT_GRAY) {
            set_string(mode, mode_value({"gray", "grey"}));
            set_number(depth, 8);
        } else {
            const std::string lineart = mode_value({"lineart", "binary", "black"});
            if (!lineart.empty()) {
                set_string(mode, lineart);
            } else {
                set_string(mode, mode_value({"gray", "grey"}));
                set_number(depth, 1);
            }
        }
    }
    if (s.resolution_set) {
        set_number(find_option("resolution"), s.resolution);
        set_number(find_option("x-resolution"), s.resolution);
        set_number(find_option("y-resolution"), s.resolution);
    }
    if (s.frame_set) {
        const double mm = s.units == TWUN_CENTIMETERS ? 10.0 : 25.4;
        auto value = [&](TW_FIX32 f) { return (f.Whole + f.Frac / 65536.0) * mm; };
        set_number(find_option("tl-x"), value(s.frame.Left));
        set_number(find_option("tl-y"), value(s.frame.Top));
        set_number(find_option("br-x"), value(s.frame.Right));
        set_number(find_option("br-y"), value(s.frame.Bottom));
    }
}

// ---- Pages ---------------------------------------------------------------

void stop_scanning() {
    if (g_src.scanning) sane_cancel(g_src.handle);
    g_src.scanning = false;
}

// Scans one page into g_src.page.
SANE_Status fetch_page() {
    Source& s = g_src;
    s.page = Page{};
    s.coded.clear();
    s.coded_valid = false;
    s.coded_at = 0;
    SANE_Status st = sane_start(s.handle);
    s.scanning = true;
    if (st != SANE_STATUS_GOOD) return st;
    st = sane_get_parameters(s.handle, &s.page.params);
    if (st != SANE_STATUS_GOOD) return st;
    const SANE_Parameters& p = s.page.params;
    // One-pass grey or colour only; 16-bit samples are cut to 8 below.
    if (!p.last_frame || (p.format != SANE_FRAME_GRAY && p.format != SANE_FRAME_RGB) ||
        (p.depth != 1 && p.depth != 8 && p.depth != 16) || p.bytes_per_line < 1 ||
        p.pixels_per_line < 1)
        return SANE_STATUS_UNSUPPORTED;
    uint8_t buffer[65536];
    for (;;) {
        SANE_Int got = 0;
        st = sane_read(s.handle, buffer, sizeof buffer, &got);
        if (got > 0) s.page.data.insert(s.page.data.end(), buffer, buffer + got);
        if (st == SANE_STATUS_EOF) break;
        if (st != SANE_STATUS_GOOD) return st;
    }
    s.page.lines = int32_t(s.page.data.size() / size_t(p.bytes_per_line));
    if (s.page.lines < 1) return SANE_STATUS_IO_ERROR;
    if (!source_is_feeder()) stop_scanning();
    return SANE_STATUS_GOOD;
}

// The next page after a transfer ended (or the first): true when one is
// ready or a failure waits for the next transfer, false when the batch is
// over.
bool next_page(bool first) {
    Source& s = g_src;
    if (!first && !source_is_feeder()) {
        s.page_ready = false;
        stop_scanning();
        return false;
    }
    const SANE_Status st = fetch_page();
    if (st == SANE_STATUS_GOOD) {
        s.page_ready = true;
        s.page_failed = false;
        return true;
    }
    if (st == SANE_STATUS_NO_DOCS) {
        s.feeder_empty = true;
        s.page_ready = false;
        stop_scanning();
        return false;
    }
    // A jam or an I/O error: the next transfer reports it.
    stop_scanning();
    if (first) {
        s.page_ready = false;
        return false;
    }
    s.page_ready = true;
    s.page_failed = true;
    return true;
}

int32_t page_bits() {
    const SANE_Parameters& p = g_src.page.params;
    if (p.depth == 1) return 1;
    return p.format == SANE_FRAME_RGB ? 24 : 8;
}

double current_resolution() {
    double r = 0;
    if (get_number(find_option("resolution"), &r) && r > 0) return r;
    if (get_number(find_option("x-resolution"), &r) && r > 0) return r;
    return g_src.resolution;
}

// One sample of row `y`, pixel `x`, channel `c`, as 8 bits.
uint8_t sample(const uint8_t* row, int32_t x, int channels, int c, int depth) {
    if (depth == 16) {
        uint16_t v;
        std::memcpy(&v, row + (size_t(x) * channels + c) * 2, 2);
        return uint8_t(v >> 8);
    }
    return row[size_t(x) * channels + c];
}

// The page as a packed DIB (malloc), bottom row first; 1-bit pages have
// palette black, white.
void* page_dib() {
    const Page& pg = g_src.page;
    const SANE_Parameters& p = pg.params;
    const int32_t bits = page_bits();
    const int32_t width = p.pixels_per_line, height = pg.lines;
    const uint32_t colours = bits == 1 ? 2 : bits == 8 ? 256 : 0;
    const size_t stride = ((size_t(width) * bits + 31) / 32) * 4;
    const size_t size = 40 + colours * 4 + stride * size_t(height);
    auto* dib = static_cast<uint8_t*>(std::calloc(1, size));
    if (!dib) return nullptr;
    IMG_BITMAPINFOHEADER h{};
    h.biSize = 40;
    h.biWidth = width;
    h.biHeight = height;
    h.biPlanes = 1;
    h.biBitCount = uint16_t(bits);
    h.biSizeImage = uint32_t(stride * size_t(height));
    const int32_t ppm = int32_t(current_resolution() * 10000.0 / 254.0 + 0.5);
    h.biXPelsPerMeter = ppm;
    h.biYPelsPerMeter = ppm;
    h.biClrUsed = colours;
    std::memcpy(dib, &h, sizeof h);
    uint8_t* palette = dib + 40;
    for (uint32_t i = 0; i < colours; ++i) {
        const uint8_t v = uint8_t(colours == 2 ? i * 255 : i);
        palette[i * 4] = palette[i * 4 + 1] = palette[i * 4 + 2] = v;
    }
    uint8_t* rows = palette + colours * 4;
    for (int32_t y = 0; y < height; ++y) {
        const uint8_t* in = pg.data.data() + size_t(y) * size_t(p.bytes_per_line);
        uint8_t* out = rows + size_t(height - 1 - y) * stride;
        if (bits == 1) {
            // SANE: a set bit is black; here bit 1 is palette entry 1, white.
            const size_t bytes = (size_t(width) + 7) / 8;
            for (size_t i = 0; i < bytes; ++i) out[i] = uint8_t(~in[i]);
            if (width % 8) out[bytes - 1] &= uint8_t(0xFF00 >> (width % 8));
        } else if (bits == 8) {
            for (int32_t x = 0; x < width; ++x) out[x] = sample(in, x, 1, 0, p.depth);
        } else {
            for (int32_t x = 0; x < width; ++x) {
                out[x * 3] = sample(in, x, 3, 2, p.depth);
                out[x * 3 + 1] = sample(in, x, 3, 1, p.depth);
                out[x * 3 + 2] = sample(in, x, 3, 0, p.depth);
            }
        }
    }
    return dib;
}

// Packed 1-bit rows (bit 1 white) for the Group 4 coder.
int32_t supply_row(intptr_t user, uint8_t* buffer, int32_t row, uint32_t byte_count) {
    const Page& pg = *reinterpret_cast<const Page*>(user);
    if (row < 0 || row >= pg.lines) return IMG_ERR_READ;
    const uint8_t* in = pg.data.data() + size_t(row) * size_t(pg.params.bytes_per_line);
    const size_t bytes = (size_t(pg.params.pixels_per_line) + 7) / 8;
    std::memset(buffer, 0xFF, byte_count);
    for (size_t i = 0; i < bytes && i < byte_count; ++i) buffer[i] = uint8_t(~in[i]);
    return 0;
}

// The page coded as Group 4 by the library's own coder.
bool code_page() {
    const Page& pg = g_src.page;
    struct {
        IMG_BITMAPINFOHEADER h;
        uint8_t palette[8];
    } header{};
    header.h.biSize = 40;
    header.h.biWidth = pg.params.pixels_per_line;
    header.h.biHeight = pg.lines;
    header.h.biPlanes = 1;
    header.h.biBitCount = 1;
    header.h.biClrUsed = 2;
    header.palette[4] = header.palette[5] = header.palette[6] = 255;
    const size_t raw = size_t(pg.lines) * ((size_t(pg.params.pixels_per_line) + 7) / 8);
    for (size_t capacity = raw / 4 + 4096; capacity < (size_t(1) << 31); capacity *= 2) {
        void* block = tesslin_block_alloc(uint32_t(capacity));
        if (!block) return false;
        const int32_t n = IMGLOW_save_bitmap_mem(block, &header.h, IMG_FORMAT_RAW_G4, &supply_row,
                                                 reinterpret_cast<intptr_t>(&pg));
        if (n >= 0 && size_t(n) < capacity) {
            g_src.coded.assign(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + n);
            tesslin_block_free(block);
            g_src.coded_valid = true;
            g_src.coded_at = 0;
            return true;
        }
        tesslin_block_free(block);
        if (n < 0 && n != IMG_ERR_WRITE) return false;  // else: a larger block
    }
    return false;
}

// ---- Capabilities ----------------------------------------------------------

void* one_value(uint16_t type, uint32_t item) {
    auto* one = static_cast<TW_ONEVALUE*>(std::malloc(sizeof(TW_ONEVALUE)));
    if (one) {
        one->ItemType = type;
        one->Item = item;
    }
    return one;
}

// The capability's current value; false when the source does not have it.
bool cap_value(uint16_t cap, uint16_t* type, uint32_t* value) {
    Source& s = g_src;
    *type = TWTY_UINT16;
    switch (cap) {
        case ICAP_PIXELTYPE: *value = uint32_t(s.pixel_type); return true;
        case ICAP_BITDEPTH: *value = uint32_t(s.bit_depth); return true;
        case ICAP_UNITS: *value = uint32_t(s.units); return true;
        case ICAP_XRESOLUTION:
        case ICAP_YRESOLUTION: *value = uint32_t(current_resolution()); return true;
        case ICAP_COMPRESSION: *value = uint32_t(s.compression); return true;
        case CAP_FEEDERENABLED:
            *type = TWTY_BOOL;
            *value = source_is_feeder() ? 1 : 0;
            return true;
        case CAP_FEEDERLOADED: {
            *type = TWTY_BOOL;
            if (feeder_value(false).empty() && !source_is_feeder()) {
                *value = 0;
                return true;
            }
            double loaded = 0;
            if (get_number(find_option("page-loaded"), &loaded)) {
                *value = loaded != 0 ? 1 : 0;
                return true;
            }
            *value = s.feeder_empty ? 0 : 1;
            return true;
        }
        case CAP_AUTOFEED:
            *type = TWTY_BOOL;
            *value = uint32_t(s.autofeed);
            return true;
        case CAP_DUPLEX:
            if (feeder_value(true).empty()) return false;
            *value = 1;
            return true;
        case CAP_DUPLEXENABLED:
            if (feeder_value(true).empty()) return false;
            *type = TWTY_BOOL;
            *value = s.duplex ? 1 : 0;
            return true;
        case CAP_ENABLEDSUIONLY:
            *type = TWTY_BOOL;
            *value = 1;
            return true;
        default: return false;
    }
}

uint16_t set_cap(uint16_t cap, uint32_t value) {
    Source& s = g_src;
    switch (cap) {
        case ICAP_PIXELTYPE: {
            const char* const* words = nullptr;
            static const char* const colour[] = {"color", "colour", nullptr};
            static const char* const grey[] = {"gray", "grey", nullptr};
            if (value == TWPT_RGB) words = colour;
            else if (value == TWPT_GRAY || value == TWPT_BW) words = grey;
            else return TWRC_FAILURE;
            bool found = value == TWPT_BW && !mode_value({"lineart", "binary", "black"}).empty();
            for (int i = 0; words[i] && !found; ++i) found = !mode_value({words[i]}).empty();
            if (!found) return TWRC_FAILURE;
            s.pixel_type = int32_t(value);
            s.pixel_set = true;
            return TWRC_SUCCESS;
        }
        case ICAP_BITDEPTH:
            if (value != 1 && value != 8 && value != 24) return TWRC_FAILURE;
            s.bit_depth = int32_t(value);
            s.depth_set = true;
            return TWRC_SUCCESS;
        case ICAP_UNITS:
            if (value != TWUN_INCHES && value != TWUN_CENTIMETERS) return TWRC_FAILURE;
            s.units = int32_t(value);
            return TWRC_SUCCESS;
        case ICAP_XRESOLUTION:
            if (value < 1) return TWRC_FAILURE;
            s.resolution = value;
            s.resolution_set = true;
            return TWRC_SUCCESS;
        case ICAP_YRESOLUTION:
            // One resolution for both directions: the x value rules.
            return value < 1 ? TWRC_FAILURE : TWRC_SUCCESS;
        case ICAP_COMPRESSION:
            if (value != TWCP_NONE && value != TWCP_GROUP4) return TWRC_FAILURE;
            s.compression = int32_t(value);
            return TWRC_SUCCESS;
        case CAP_FEEDERENABLED:
            if (value && feeder_value(false).empty() && feeder_value(true).empty())
                return TWRC_FAILURE;
            s.feeder = value != 0;
            s.feeder_set = true;
            // Switched now so that a read-back sees it.
            set_string(find_option("source"), s.feeder ? (feeder_value(s.duplex).empty()
                                                               ? feeder_value(!s.duplex)
                                                               : feeder_value(s.duplex))
                                                        : flatbed_value());
            return TWRC_SUCCESS;
        case CAP_AUTOFEED: s.autofeed = value ? 1 : 0; return TWRC_SUCCESS;
        case CAP_DUPLEXENABLED:
            if (feeder_value(true).empty()) return value ? TWRC_FAILURE : TWRC_SUCCESS;
            s.duplex = value != 0;
            return TWRC_SUCCESS;
        default: return TWRC_FAILURE;
    }
}

uint16_t capability(uint16_t msg, TW_CAPABILITY* c) {
    if (!c) return TWRC_FAILURE;
    if (msg == MSG_SET) {
        if (!c->hContainer || c->ConType != TWON_ONEVALUE) return TWRC_FAILURE;
        TW_ONEVALUE one;
        std::memcpy(&one, c->hContainer, sizeof one);
        uint32_t value = one.Item;
        if (one.ItemType == TWTY_UINT16 || one.ItemType == TWTY_INT16 || one.ItemType == TWTY_BOOL)
            value &= 0xFFFF;
        return set_cap(c->Cap, value);
    }
    if (msg != MSG_GET && msg != MSG_GETCURRENT && msg != MSG_GETDEFAULT) return TWRC_FAILURE;
    uint16_t type;
    uint32_t value;
    if (!cap_value(c->Cap, &type, &value)) return TWRC_FAILURE;
    c->ConType = TWON_ONEVALUE;
    c->hContainer = one_value(type, value);
    return c->hContainer ? TWRC_SUCCESS : TWRC_FAILURE;
}

// ---- Manager and source ----------------------------------------------------

const char* default_device() {
    static std::string chosen;
    if (const char* env = std::getenv("TESSLIN_SANE_DEVICE"); env && *env) return env;
    const SANE_Device** list = nullptr;
    if (sane_get_devices(&list, SANE_FALSE) != SANE_STATUS_GOOD || !list || !list[0])
        return nullptr;
    chosen = list[0]->name;
    return chosen.c_str();
}

void fill_identity(TW_IDENTITY* id, const char* device) {
    std::memset(id, 0, sizeof *id);
    id->Id = 2;
    id->Version.MajorNum = 1;
    id->ProtocolMajor = 1;
    id->ProtocolMinor = 8;
    id->SupportedGroups = DG_CONTROL | DG_IMAGE;
    std::strncpy(id->Manufacturer, "Tesslin", sizeof id->Manufacturer - 1);
    std::strncpy(id->ProductFamily, "SANE", sizeof id->ProductFamily - 1);
    std::strncpy(id->ProductName, device ? device : "", sizeof id->ProductName - 1);
}

bool sane_up() {
    if (!g_src.sane_up) {
        SANE_Int version = 0;
        if (sane_init(&version, nullptr) != SANE_STATUS_GOOD) return false;
        g_src.sane_up = true;
    }
    return true;
}

void sane_down() {
    if (g_src.handle) {
        stop_scanning();
        sane_close(g_src.handle);
    }
    if (g_src.sane_up) sane_exit();
    g_src = Source{};
    g_source_open = false;
}

uint16_t open_source(TW_IDENTITY* id) {
    if (g_source_open || !id || !sane_up()) return TWRC_FAILURE;
    const char* device = default_device();
    if (!device) {
        sane_down();
        return TWRC_FAILURE;
    }
    std::string name = device;
    if (sane_open(name.c_str(), &g_src.handle) != SANE_STATUS_GOOD || !g_src.handle) {
        g_src.handle = nullptr;
        sane_down();
        return TWRC_FAILURE;
    }
    g_src.device = name;
    apply_extra_options();
    const std::string mode = lower(get_string(find_option("mode")));
    double depth = 8;
    get_number(find_option("depth"), &depth);
    if (mode.find("color") != std::string::npos || mode.find("colour") != std::string::npos) {
        g_src.pixel_type = TWPT_RGB;
        g_src.bit_depth = 24;
    } else if (mode.find("lineart") != std::string::npos || depth == 1) {
        g_src.pixel_type = TWPT_BW;
        g_src.bit_depth = 1;
    } else {
        g_src.pixel_type = TWPT_GRAY;
        g_src.bit_depth = 8;
    }
    g_src.resolution = current_resolution();
    g_src.feeder = source_is_feeder();
    fill_identity(id, name.c_str());
    g_source_open = true;
    return TWRC_SUCCESS;
}

uint16_t user_interface(uint16_t msg, TW_USERINTERFACE* ui) {
    Source& s = g_src;
    switch (msg) {
        case MSG_ENABLEDS:
            if (s.enabled || !ui) return TWRC_FAILURE;
            s.enabled = true;
            s.events.clear();
            apply_settings();
            s.events.push_back(next_page(true) ? MSG_XFERREADY : MSG_CLOSEDSREQ);
            return TWRC_SUCCESS;
        case MSG_ENABLEDSUIONLY:
            if (s.enabled) return TWRC_FAILURE;
            s.enabled = true;
            s.events.assign(1, MSG_CLOSEDSREQ);  // the user pressed OK at once
            return TWRC_SUCCESS;
        case MSG_DISABLEDS:
            if (!s.enabled) return TWRC_FAILURE;
            stop_scanning();
            s.enabled = false;
            s.page_ready = false;
            s.events.clear();
            return TWRC_SUCCESS;
        default: return TWRC_FAILURE;
    }
}

uint16_t image_info(TW_IMAGEINFO* info) {
    Source& s = g_src;
    if (!info || !s.page_ready || s.page_failed) return TWRC_FAILURE;
    std::memset(info, 0, sizeof *info);
    const int32_t res = int32_t(current_resolution() * 65536.0 + 0.5);
    info->XResolution.Whole = int16_t(res >> 16);
    info->XResolution.Frac = uint16_t(res & 0xFFFF);
    info->YResolution = info->XResolution;
    info->ImageWidth = s.page.params.pixels_per_line;
    info->ImageLength = s.page.lines;
    const int32_t bits = page_bits();
    info->SamplesPerPixel = int16_t(bits == 24 ? 3 : 1);
    for (int i = 0; i < info->SamplesPerPixel; ++i) info->BitsPerSample[i] = int16_t(bits == 1 ? 1 : 8);
    info->BitsPerPixel = int16_t(bits);
    info->PixelType = int16_t(bits == 24 ? TWPT_RGB : bits == 8 ? TWPT_GRAY : TWPT_BW);
    info->Compression = uint16_t(bits == 1 && s.compression == TWCP_GROUP4 ? TWCP_GROUP4 : TWCP_NONE);
    return TWRC_SUCCESS;
}

uint16_t native_transfer(void** out) {
    if (!out || !g_src.page_ready) return TWRC_FAILURE;
    if (g_src.page_failed) return TWRC_FAILURE;
    void* dib = page_dib();
    if (!dib) return TWRC_FAILURE;
    *out = dib;
    return TWRC_XFERDONE;
}

uint16_t memory_transfer(TW_IMAGEMEMXFER* x) {
    Source& s = g_src;
    if (!x || !s.page_ready || s.page_failed || page_bits() != 1 ||
        s.compression != TWCP_GROUP4 || !x->Memory.TheMem)
        return TWRC_FAILURE;
    if (!s.coded_valid && !code_page()) return TWRC_FAILURE;
    const size_t left = s.coded.size() - s.coded_at;
    const size_t n = std::min<size_t>(left, x->Memory.Length);
    std::memcpy(x->Memory.TheMem, s.coded.data() + s.coded_at, n);
    s.coded_at += n;
    x->Compression = TWCP_GROUP4;
    x->BytesPerRow = 0;
    x->Columns = uint32_t(s.page.params.pixels_per_line);
    x->Rows = uint32_t(s.page.lines);
    x->XOffset = x->YOffset = 0;
    x->BytesWritten = uint32_t(n);
    return s.coded_at == s.coded.size() ? TWRC_XFERDONE : TWRC_SUCCESS;
}

uint16_t pending(uint16_t msg, TW_PENDINGXFERS* p) {
    Source& s = g_src;
    if (!p || !s.enabled) return TWRC_FAILURE;
    if (msg == MSG_ENDXFER) {
        const bool more = s.page_ready && !s.page_failed && next_page(false);
        p->Count = more ? 0xFFFF : 0;
    } else if (msg == MSG_RESET) {
        stop_scanning();
        s.page_ready = false;
        p->Count = 0;
    } else if (msg == MSG_GET) {
        p->Count = s.page_ready ? 0xFFFF : 0;
        return TWRC_SUCCESS;
    } else {
        return TWRC_FAILURE;
    }
    if (p->Count == 0) s.events.assign(1, MSG_CLOSEDSREQ);
    return TWRC_SUCCESS;
}

uint16_t to_source(uint32_t group, uint16_t dat, uint16_t msg, void* data) {
    if (!g_source_open) return TWRC_FAILURE;
    if (group == DG_CONTROL) {
        switch (dat) {
            case DAT_CAPABILITY: return capability(msg, static_cast<TW_CAPABILITY*>(data));
            case DAT_USERINTERFACE:
                return user_interface(msg, static_cast<TW_USERINTERFACE*>(data));
            case DAT_EVENT: {
                auto* e = static_cast<TW_EVENT*>(data);
                if (msg != MSG_PROCESSEVENT || !e) return TWRC_FAILURE;
                if (!g_src.enabled || g_src.events.empty()) {
                    e->TWMessage = MSG_NULL;
                    return TWRC_NOTDSEVENT;
                }
                e->TWMessage = g_src.events.front();
                g_src.events.erase(g_src.events.begin());
                return TWRC_DSEVENT;
            }
            case DAT_PENDINGXFERS: return pending(msg, static_cast<TW_PENDINGXFERS*>(data));
            case DAT_SETUPMEMXFER: {
                auto* m = static_cast<TW_SETUPMEMXFER*>(data);
                if (msg != MSG_GET || !m) return TWRC_FAILURE;
                m->MinBufSize = 4096;
                m->MaxBufSize = 1u << 20;
                m->Preferred = 65536;
                return TWRC_SUCCESS;
            }
            default: return TWRC_FAILURE;
        }
    }
    if (group == DG_IMAGE) {
        switch (dat) {
            case DAT_IMAGEINFO:
                if (msg != MSG_GET) return TWRC_FAILURE;
                return image_info(static_cast<TW_IMAGEINFO*>(data));
            case DAT_IMAGELAYOUT: {
                auto* l = static_cast<TW_IMAGELAYOUT*>(data);
                if (!l) return TWRC_FAILURE;
                if (msg == MSG_SET) {
                    g_src.frame = l->Frame;
                    g_src.frame_set = true;
                    return TWRC_SUCCESS;
                }
                if (msg == MSG_GET || msg == MSG_GETCURRENT) {
                    std::memset(l, 0, sizeof *l);
                    l->Frame = g_src.frame;
                    return TWRC_SUCCESS;
                }
                return TWRC_FAILURE;
            }
            case DAT_IMAGENATIVEXFER:
                if (msg != MSG_GET) return TWRC_FAILURE;
                return native_transfer(static_cast<void**>(data));
            case DAT_IMAGEMEMXFER:
                if (msg != MSG_GET) return TWRC_FAILURE;
                return memory_transfer(static_cast<TW_IMAGEMEMXFER*>(data));
            default: return TWRC_FAILURE;
        }
    }
    return TWRC_FAILURE;
}

uint16_t to_manager(TW_IDENTITY* origin, uint16_t dat, uint16_t msg, void* data) {
    if (dat == DAT_PARENT) {
        if (msg == MSG_OPENDSM) {
            if (g_manager_open || !origin) return TWRC_FAILURE;
            origin->Id = 1;
            g_manager_open = true;
            return TWRC_SUCCESS;
        }
        if (msg == MSG_CLOSEDSM) {
            if (!g_manager_open || g_source_open) return TWRC_FAILURE;
            g_manager_open = false;
            return TWRC_SUCCESS;
        }
        return TWRC_FAILURE;
    }
    if (!g_manager_open || dat != DAT_IDENTITY) return TWRC_FAILURE;
    auto* id = static_cast<TW_IDENTITY*>(data);
    switch (msg) {
        case MSG_OPENDS: return open_source(id);
        case MSG_CLOSEDS:
            if (!g_source_open) return TWRC_FAILURE;
            sane_down();
            return TWRC_SUCCESS;
        case MSG_GETDEFAULT:
        case MSG_USERSELECT: {
            // No selection dialog: the choice is the default device.
            if (!id) return TWRC_FAILURE;
            const bool was_up = g_src.sane_up;
            if (!sane_up()) return TWRC_FAILURE;
            const char* device = default_device();
            std::string name = device ? device : "";
            if (!was_up && !g_source_open) sane_down();
            if (name.empty()) return TWRC_FAILURE;
            fill_identity(id, name.c_str());
            return TWRC_SUCCESS;
        }
        default: return TWRC_FAILURE;
    }
}

}  // namespace

extern "C" __attribute__((visibility("default"))) uint16_t DSM_Entry(TW_IDENTITY* origin,
                                                                     TW_IDENTITY* dest,
                                                                     uint32_t group, uint16_t dat,
                                                                     uint16_t msg, void* data) {
    if (!origin) return TWRC_FAILURE;
    if (dest) {
        if (!g_manager_open) return TWRC_FAILURE;
        return to_source(group, dat, msg, data);
    }
    if (group != DG_CONTROL) return TWRC_FAILURE;
    return to_manager(origin, dat, msg, data);
}
