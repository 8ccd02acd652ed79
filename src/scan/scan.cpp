// Scanning: pages from a data source reached through a data source manager
// module, into bitmap handles or files.
//
//   IMG_scan_open_source     choose the source the next operations open
//   IMG_scan_setup           the source's own settings dialog, no transfer
//   IMG_scan_get_cap/_set_cap  one capability as a one-value container
//   IMG_scan_set_caps        the settings imposed when no dialog is shown
//   IMG_scan_acquire         one page, native transfer
//   IMG_scan_acquire_feeder(_fast)  one feeder page per call
//   IMG_scan_pages(_fast)    every feeder page into files
//   IMG_scan_feeder_close    end the connection
//
// The manager module is found and loaded by the platform layer and entered
// only through DSM_Entry. Connection state is process-wide and unlocked, as
// the interface documents: one scanning operation at a time.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "core/api.h"
#include "core/dib.h"
#include "core/limits.h"
#include "platform/platform.h"
#include "scan/twain.h"
#include "tesslin/tesslin.h"

static_assert(sizeof(IMG_SCAN_SETTINGS) == 44, "the scan settings record has no padding");
static_assert(sizeof(TW_ONEVALUE) == 6, "a one-value container is 6 bytes");

namespace {

using namespace tesslin;

// How long the event loop waits for a source that sends nothing before it
// treats the silence as a close request.
constexpr auto kSilenceLimit = std::chrono::seconds(120);
// Memory transfers: the preferred size when the source names none, and the
// largest piece asked for in one call.
constexpr uint32_t kDefaultPreferred = 100000;
constexpr uint32_t kPieceLength = 100000;

struct Connection {
    bool manager_open = false;
    void* module = nullptr;
    DSM_ENTRYPROC entry = nullptr;
    bool source_open = false;
    bool enabled = false;
    intptr_t parent = 0;
    TW_USERINTERFACE ui{};
    int32_t last_status = 0;
    int32_t pending = 0;  // pending transfers after the last end of transfer
};

Connection g;
TW_IDENTITY g_app;
TW_IDENTITY g_source;
IMG_SCAN_SETTINGS g_settings = {1, 0.0, 0.0, 8.5, 11.0, 300, 300};

void copy_text(char (&to)[34], const char* text) {
    std::memset(to, 0, sizeof to);
    std::strncpy(to, text, sizeof to - 1);
}

void fill_app_identity() {
    std::memset(&g_app, 0, sizeof g_app);
    g_app.Version.MajorNum = 1;
    g_app.Version.MinorNum = 0;
    g_app.Version.Language = 13;
    g_app.Version.Country = 1;
    copy_text(g_app.Version.Info, "Version 8.0");
    g_app.ProtocolMajor = 1;
    g_app.ProtocolMinor = 8;
    g_app.SupportedGroups = DG_CONTROL | DG_IMAGE;
    copy_text(g_app.Manufacturer, "Corvane");
    copy_text(g_app.ProductFamily, "Dynamic Link Library");
    copy_text(g_app.ProductName, "Windows TWAIN 32-bit Application");
}

uint16_t to_manager(uint32_t group, uint16_t dat, uint16_t msg, void* data) {
    if (!g.entry) return TWRC_FAILURE;
    return g.entry(&g_app, nullptr, group, dat, msg, data);
}

uint16_t to_source(uint32_t group, uint16_t dat, uint16_t msg, void* data) {
    if (!g.entry) return TWRC_FAILURE;
    return g.entry(&g_app, &g_source, group, dat, msg, data);
}

void unload_manager() {
    platform::module_unload(g.module);
    g.module = nullptr;
    g.entry = nullptr;
}

void close_connection() {
    if (g.enabled) {
        to_source(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, &g.ui);
        g.enabled = false;
    }
    if (g.source_open) {
        to_manager(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, &g_source);
        g.source_open = false;
    }
    if (g.manager_open) {
        void* parent = reinterpret_cast<void*>(g.parent);
        to_manager(DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, &parent);
        g.manager_open = false;
    }
    unload_manager();
}

// 0, IMG_ERR_SCAN_MANAGER or IMG_ERR_SCAN_REFUSED.
int32_t open_manager(intptr_t parent) {
    g.parent = parent;
    if (g.manager_open) return 0;
    fill_app_identity();
    char path[4096];
    if (!platform::twain_manager_path(path, sizeof path)) return IMG_ERR_SCAN_MANAGER;
    unload_manager();
    g.module = platform::module_load(path);
    if (!g.module) return IMG_ERR_SCAN_MANAGER;
    g.entry = reinterpret_cast<DSM_ENTRYPROC>(platform::module_symbol(g.module, "DSM_Entry"));
    if (!g.entry) {
        unload_manager();
        return IMG_ERR_SCAN_MANAGER;
    }
    void* window = reinterpret_cast<void*>(parent);
    if (to_manager(DG_CONTROL, DAT_PARENT, MSG_OPENDSM, &window) != TWRC_SUCCESS ||
        g_app.Id == 0) {
        unload_manager();
        return IMG_ERR_SCAN_REFUSED;
    }
    g.manager_open = true;
    return 0;
}

// The source the manager names as its default (or the one chosen last).
int32_t open_source() {
    if (g.source_open) return 0;
    g_source.Id = 0;
    std::memset(g_source.ProductName, 0, sizeof g_source.ProductName);
    if (to_manager(DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, &g_source) != TWRC_SUCCESS) {
        close_connection();
        return IMG_ERR_SCAN_REFUSED;
    }
    g.source_open = true;
    return 0;
}

// Manager and source, any failure reported as IMG_ERR_SCAN_REFUSED.
int32_t open_both(intptr_t parent) {
    if (open_manager(parent) < 0) return IMG_ERR_SCAN_REFUSED;
    return open_source();
}

// One capability's value from a one-value container: 0 or
// IMG_ERR_SCAN_CAPABILITY.
int32_t get_cap(uint16_t cap, uint16_t msg, int32_t* value, uint16_t container = TWON_ONEVALUE) {
    TW_CAPABILITY c{cap, container, nullptr};
    const uint16_t rc = to_source(DG_CONTROL, DAT_CAPABILITY, msg, &c);
    if (rc != TWRC_SUCCESS || !c.hContainer) {
        std::free(c.hContainer);
        return IMG_ERR_SCAN_CAPABILITY;
    }
    TW_ONEVALUE one;
    std::memcpy(&one, c.hContainer, sizeof one);
    std::free(c.hContainer);
    switch (one.ItemType) {
        case TWTY_INT16:
        case TWTY_UINT16: *value = int32_t(one.Item & 0xFFFF); break;
        case TWTY_INT8:
        case TWTY_UINT8: *value = int32_t(one.Item & 0xFF); break;
        default: *value = int32_t(one.Item); break;
    }
    return 0;
}

int32_t set_cap(uint16_t cap, int32_t value, uint16_t type = TWTY_UINT16) {
    auto* one = static_cast<TW_ONEVALUE*>(std::malloc(sizeof(TW_ONEVALUE)));
    if (!one) return IMG_ERR_SCAN_CAPABILITY;
    one->ItemType = type;
    one->Item = type == TWTY_UINT16 ? uint32_t(value) & 0xFFFF : uint32_t(value);
    TW_CAPABILITY c{cap, TWON_ONEVALUE, one};
    const uint16_t rc = to_source(DG_CONTROL, DAT_CAPABILITY, MSG_SET, &c);
    std::free(one);
    return rc == TWRC_SUCCESS ? 0 : IMG_ERR_SCAN_CAPABILITY;
}

TW_FIX32 to_fix32(double value) {
    const int32_t fixed = int32_t(value * 65536.0 + 0.5);
    TW_FIX32 f;
    f.Whole = int16_t(fixed >> 16);
    f.Frac = uint16_t(fixed & 0xFFFF);
    return f;
}

double from_fix32(TW_FIX32 f) { return f.Whole + f.Frac / 65536.0; }

// The settings record imposed on the source; failures are ignored.
void apply_settings() {
    const int32_t bits = g_settings.bits_per_pixel;
    set_cap(ICAP_PIXELTYPE, bits == 24 ? TWPT_RGB : bits == 8 ? TWPT_GRAY : TWPT_BW);
    set_cap(ICAP_BITDEPTH, bits);
    set_cap(ICAP_UNITS, TWUN_INCHES);
    set_cap(ICAP_XRESOLUTION, g_settings.x_resolution);
    set_cap(ICAP_YRESOLUTION, g_settings.y_resolution);
    TW_IMAGELAYOUT layout{};
    layout.Frame.Left = to_fix32(g_settings.left);
    layout.Frame.Top = to_fix32(g_settings.top);
    layout.Frame.Right = to_fix32(g_settings.right);
    layout.Frame.Bottom = to_fix32(g_settings.bottom);
    to_source(DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, &layout);
}

// Switches the feeder on (with the compression and duplex the variant asks
// for) or off. 0 or a negative status.
int32_t configure_feeder(bool enable, bool duplex, bool fast) {
    int32_t value = 0;
    if (!enable) {
        if (get_cap(CAP_FEEDERENABLED, MSG_GET, &value) == 0 && value == 1)
            set_cap(CAP_FEEDERENABLED, 0);
        return 0;
    }
    if (get_cap(ICAP_COMPRESSION, MSG_GET, &value) == 0)
        set_cap(ICAP_COMPRESSION, fast ? TWCP_GROUP4 : TWCP_NONE);
    if (fast && get_cap(CAP_DUPLEX, MSG_GET, &value) == 0)
        set_cap(CAP_DUPLEXENABLED, duplex ? 1 : 0, TWTY_BOOL);
    if (get_cap(CAP_FEEDERENABLED, MSG_GET, &value) < 0) return IMG_ERR_SCAN_FEEDER;
    if (value != 1) {
        if (set_cap(CAP_FEEDERENABLED, 1) < 0 || get_cap(CAP_FEEDERENABLED, MSG_GET, &value) < 0)
            return IMG_ERR_SCAN_FEEDER;
        if (value != 1) return 0;  // no feeder: pages come one at a time
    }
    if (get_cap(CAP_AUTOFEED, MSG_GET, &value) < 0) return IMG_ERR_SCAN_AUTOFEED;
    if (value != 1) {
        if (set_cap(CAP_AUTOFEED, 1) < 0 || get_cap(CAP_AUTOFEED, MSG_GET, &value) < 0 ||
            value != 1)
            return IMG_ERR_SCAN_AUTOFEED;
    }
    return 0;
}

// MSG_ENDXFER; remembers how many transfers remain (0 when the call fails).
void end_transfer() {
    TW_PENDINGXFERS pending{};
    if (to_source(DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, &pending) != TWRC_SUCCESS)
        g.pending = 0;
    else
        g.pending = pending.Count == 0xFFFF ? -1 : pending.Count;
}

// A resolution as stored in a DIB header (dots per inch): the source's
// value in its units, centimetres converted.
int32_t stored_resolution(TW_FIX32 value, int32_t units) {
    const double r = from_fix32(value);
    if (units == TWUN_CENTIMETERS) return int32_t(r * 2.54 + 0.5);
    return int32_t(r);
}

void store_resolution(int32_t handle, const TW_IMAGEINFO& info, int32_t units) {
    int32_t w, h, b;
    const intptr_t header = IMG_bitmap_info(handle, &w, &h, &b);
    if (header <= 0) return;
    auto* hdr = reinterpret_cast<IMG_BITMAPINFOHEADER*>(header);
    hdr->biXPelsPerMeter = stored_resolution(info.XResolution, units);
    hdr->biYPelsPerMeter = stored_resolution(info.YResolution, units);
}

// A handle from the DIB a source handed over (its memory is the source's:
// the size follows from its header alone, checked before it is copied into
// a library block so that the decode reads within bounds).
int32_t handle_from_dib(const void* dib) {
    IMG_BITMAPINFOHEADER h;
    std::memcpy(&h, dib, sizeof h);
    const uint32_t bits = uint32_t(h.biBitCount);
    if (h.biSize != 40 || h.biWidth < 1 || h.biHeight == 0 ||
        (bits != 1 && bits != 4 && bits != 8 && bits != 16 && bits != 24 && bits != 32))
        return IMG_ERR_BAD_IMAGE;
    const uint64_t height = uint64_t(std::llabs(int64_t(h.biHeight)));
    if (const int32_t s = limits::check_dimensions(uint64_t(h.biWidth), height); s < 0) return s;
    const uint64_t size = 40 + uint64_t(palette_bytes(bits)) +
                          row_bytes64(uint64_t(h.biWidth), bits) * height;
    if (size > 0x7FFFFFFFu) return IMG_ERR_MEMORY;
    void* block = platform::block_alloc(uint32_t(size));
    if (!block) return IMG_ERR_MEMORY;
    std::memcpy(block, dib, size_t(size));
    const int32_t handle = IMG_create_handle(block);
    platform::block_free(block);
    return handle;
}

// Steps 3 and 4 of a native transfer, after the image information.
int32_t native_after_info(const TW_IMAGEINFO& info, bool store_res, int32_t units) {
    void* dib = nullptr;
    const uint16_t rc = to_source(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &dib);
    if (rc == TWRC_CANCEL) {
        std::free(dib);
        return IMG_ERR_STOP;
    }
    if (rc != TWRC_XFERDONE || !dib) {
        std::free(dib);
        return IMG_ERR_MEMORY;
    }
    if (info.BitsPerPixel == 16) static_cast<IMG_BITMAPINFOHEADER*>(dib)->biBitCount = 16;
    const int32_t handle = handle_from_dib(dib);
    std::free(dib);
    if (handle >= 0 && store_res) store_resolution(handle, info, units);
    return handle;
}

// A native transfer of one image (the transfer is not ended here).
int32_t native_transfer() {
    TW_IMAGEINFO info{};
    if (to_source(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info) != TWRC_SUCCESS)
        return IMG_ERR_SCAN_REFUSED;
    int32_t units = 0;
    if (get_cap(ICAP_UNITS, MSG_GETCURRENT, &units) < 0) return IMG_ERR_SCAN_REFUSED;
    return native_after_info(info, true, units);
}

// One image by memory transfer of Group 4 data (native when the source
// does not send Group 4), the transfer ended here.
int32_t memory_transfer() {
    TW_IMAGEINFO info{};
    if (to_source(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info) != TWRC_SUCCESS)
        return IMG_ERR_SCAN_REFUSED;
    if (info.Compression != TWCP_GROUP4) {
        const int32_t handle = native_transfer();
        end_transfer();
        return handle;
    }
    int32_t result = IMG_ERR_SCAN_REFUSED;
    uint8_t* buffer = nullptr;
    uint64_t size = row_bytes64(uint64_t(std::max<int32_t>(info.ImageWidth, 0)),
                                     uint64_t(std::max<int16_t>(info.BitsPerPixel, 0))) *
                    uint64_t(std::max<int32_t>(info.ImageLength, 0));
    TW_SETUPMEMXFER setup{};
    to_source(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, &setup);
    const uint64_t preferred = setup.Preferred ? setup.Preferred : kDefaultPreferred;
    if (size > preferred) size = (size / preferred + 1) * preferred;
    if (size == 0) size = preferred;
    int32_t units = 0;
    uint64_t at = 0;
    if (info.ImageWidth < 1 || info.ImageLength < 1 || size > 0x7FFFFFFFu) {
        result = IMG_ERR_BAD_IMAGE;
        goto done;
    }
    buffer = static_cast<uint8_t*>(platform::block_alloc(uint32_t(size)));
    if (!buffer) {
        result = IMG_ERR_MEMORY;
        goto done;
    }
    std::memset(buffer, 0, size_t(size));
    if (get_cap(ICAP_UNITS, MSG_GETCURRENT, &units) < 0) goto done;
    for (;;) {
        // Compressed data can outgrow the estimate: grow by the preferred
        // size rather than let a piece run past the end.
        if (at == size) {
            if (size + preferred > 0x7FFFFFFFu) {
                result = IMG_ERR_MEMORY;
                goto done;
            }
            void* grown = platform::block_realloc(buffer, uint32_t(size + preferred));
            if (!grown) {
                result = IMG_ERR_MEMORY;
                goto done;
            }
            buffer = static_cast<uint8_t*>(grown);
            std::memset(buffer + size, 0, size_t(preferred));
            size += preferred;
        }
        TW_IMAGEMEMXFER piece{};
        piece.Compression = 0xFFFF;
        piece.Memory.Flags = TWMF_APPOWNS | TWMF_POINTER;
        piece.Memory.Length = uint32_t(std::min<uint64_t>(kPieceLength, size - at));
        piece.Memory.TheMem = buffer + at;
        const uint16_t rc = to_source(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &piece);
        if (rc == TWRC_SUCCESS || rc == TWRC_XFERDONE)
            at += std::min<uint64_t>(piece.BytesWritten, piece.Memory.Length);
        if (rc == TWRC_SUCCESS) continue;
        if (rc == TWRC_CANCEL) {
            result = IMG_ERR_STOP;
        } else if (rc == TWRC_XFERDONE) {
            result = IMG_decompress_fax_mem(buffer, info.ImageWidth, info.ImageLength, 4, 1);
            if (result >= 0) store_resolution(result, info, units);
        }
        break;
    }
done:
    end_transfer();
    platform::block_free(buffer);
    return result;
}

// Pumps the source's events while it is enabled: `step` runs on each
// transfer-ready message; a close request disables the source. `stop` is
// asked after each round. There is no window message queue here: the
// source is polled, and its silence for kSilenceLimit counts as a close
// request.
template <typename Step, typename Stop>
void event_loop(Step step, Stop stop) {
    auto quiet_since = std::chrono::steady_clock::now();
    while (g.enabled) {
        TW_EVENT event{nullptr, MSG_NULL};
        const uint16_t rc = to_source(DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event);
        if (rc == TWRC_DSEVENT && event.TWMessage == MSG_XFERREADY) {
            step();
            quiet_since = std::chrono::steady_clock::now();
        } else if (rc == TWRC_DSEVENT && event.TWMessage == MSG_CLOSEDSREQ) {
            to_source(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, &g.ui);
            g.enabled = false;
        } else {
            if (std::chrono::steady_clock::now() - quiet_since > kSilenceLimit) {
                to_source(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, &g.ui);
                g.enabled = false;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (stop()) break;
    }
}

// 0 or IMG_ERR_SCAN_REFUSED (the connection closed).
int32_t enable_source(intptr_t parent, int32_t show_ui) {
    // A settings dialog left open by IMG_scan_setup closes first.
    if (g.enabled) {
        to_source(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, &g.ui);
        g.enabled = false;
    }
    g.ui.ShowUI = show_ui ? 1 : 0;
    g.ui.ModalUI = 0;
    g.ui.hParent = reinterpret_cast<void*>(parent);
    if (to_source(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, &g.ui) != TWRC_SUCCESS) {
        close_connection();
        return IMG_ERR_SCAN_REFUSED;
    }
    g.enabled = true;
    return 0;
}

int32_t acquire_feeder(intptr_t parent, int32_t show_ui, bool fast, int32_t duplex) {
    if (g.manager_open && g.source_open && g.enabled) {
        int32_t handle;
        if (fast) {
            handle = memory_transfer();
        } else {
            handle = native_transfer();
            end_transfer();
        }
        if (handle < 0 || g.pending == 0) close_connection();
        return handle;
    }
    if (const int32_t s = open_both(parent); s < 0) return s;
    int32_t loaded = 0;
    if (get_cap(CAP_FEEDERLOADED, MSG_GETCURRENT, &loaded) < 0 || loaded == 0) {
        close_connection();
        return IMG_ERR_SCAN_NO_PAPER;
    }
    if (!show_ui) apply_settings();
    if (const int32_t s = configure_feeder(true, duplex != 0, fast); s < 0) {
        close_connection();
        return s;
    }
    if (const int32_t s = enable_source(parent, show_ui); s < 0) return s;
    g.last_status = IMG_ERR_STOP;
    event_loop(
        [&] {
            int32_t handle;
            if (fast) {
                handle = memory_transfer();
            } else {
                handle = native_transfer();
                end_transfer();
            }
            g.last_status = handle;
            if (handle < 0 || g.pending == 0) close_connection();
        },
        [] { return g.last_status != IMG_ERR_STOP; });
    if (g.last_status < 0) close_connection();
    return g.last_status;
}

bool multi_page_code(int32_t code) {
    return code == IMG_FORMAT_TIFF || code == IMG_FORMAT_TIFF_MH || code == IMG_FORMAT_TIFF_G3 ||
           code == IMG_FORMAT_TIFF_G4 || code == IMG_FORMAT_DCX ||
           code == IMG_FORMAT_TIFF_PACKBITS;
}

// The page step of IMG_scan_pages: every remaining page into files.
int32_t save_pages(const char* name, int32_t format_code) {
    TW_IMAGEINFO info{};
    if (to_source(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info) != TWRC_SUCCESS) {
        close_connection();
        return 0;
    }
    const int32_t code = format_code < 0 ? IMG_FORMAT_BMP : format_code;
    const bool multi = multi_page_code(code);
    if (multi && name) {
        const int32_t fd = platform::file_open(name, 2);
        if (fd >= 0) platform::file_close(fd);
        platform::file_delete(name);
    }
    int32_t status = 0;
    for (int32_t counter = 0;; ++counter) {
        const int32_t handle = memory_transfer();
        if (handle < 0) {
            status = handle;
            break;
        }
        std::string file;
        if (multi) {
            file = name ? name : "";
        } else {
            char number[16];
            std::snprintf(number, sizeof number, "%08d.img", counter);
            file = std::string(name ? name : "") + number;
            if (platform::file_open(file.c_str(), 3) != -1) platform::file_delete(file.c_str());
        }
        const int32_t saved = IMG_save_bitmap(handle, multi && !name ? nullptr : file.c_str(), code);
        IMG_delete_bitmap(handle);
        if (saved < 0) {
            status = saved;
            break;
        }
        if (g.pending == 0) break;
    }
    close_connection();
    return status;
}

int32_t scan_pages(intptr_t parent, const char* name, int32_t format_code, int32_t show_ui,
                   bool fast, int32_t duplex) {
    if (const int32_t s = open_manager(parent); s < 0) return s;
    if (const int32_t s = open_source(); s < 0) return s;
    int32_t loaded = 0;
    if (get_cap(CAP_FEEDERLOADED, MSG_GETCURRENT, &loaded) < 0 || loaded == 0) {
        close_connection();
        return IMG_ERR_SCAN_REFUSED;
    }
    if (!show_ui) apply_settings();
    if (configure_feeder(true, duplex != 0, fast) < 0) {
        close_connection();
        return IMG_ERR_SCAN_REFUSED;
    }
    if (const int32_t s = enable_source(parent, show_ui); s < 0) return s;
    g.last_status = IMG_ERR_STOP;
    bool ran = false;
    event_loop(
        [&] {
            ran = true;
            g.last_status = save_pages(name, format_code);
        },
        [&] { return ran; });
    close_connection();
    return g.last_status;
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMG_scan_open_source(intptr_t parent) {
    if (const int32_t s = open_manager(parent); s < 0) return s;
    TW_IDENTITY chosen{};
    to_manager(DG_CONTROL, DAT_IDENTITY, MSG_GETDEFAULT, &chosen);
    if (to_manager(DG_CONTROL, DAT_IDENTITY, MSG_USERSELECT, &chosen) == TWRC_SUCCESS)
        g_source = chosen;
    close_connection();
    return 0;
}

TESSLIN_API int32_t IMG_scan_setup(intptr_t parent) {
    if (const int32_t s = open_both(parent); s < 0) return s;
    int32_t value = 0;
    if (get_cap(CAP_ENABLEDSUIONLY, MSG_GET, &value, TWON_DONTCARE) < 0) {
        close_connection();
        return IMG_ERR_SCAN_REFUSED;
    }
    if (value != 1) {
        close_connection();
        return IMG_ERR_SCAN_CAPABILITY;
    }
    if (g.enabled) {
        to_source(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, &g.ui);
        g.enabled = false;
    }
    g.ui.ShowUI = 1;
    g.ui.ModalUI = 0;
    g.ui.hParent = reinterpret_cast<void*>(parent);
    if (to_source(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDSUIONLY, &g.ui) != TWRC_SUCCESS) {
        close_connection();
        return IMG_ERR_SCAN_REFUSED;
    }
    g.enabled = true;
    return 0;
}

TESSLIN_API int32_t IMG_scan_get_cap(intptr_t parent, uint16_t capability) {
    if (const int32_t s = open_both(parent); s < 0) return s;
    int32_t value = 0;
    const int32_t s = get_cap(capability, MSG_GETCURRENT, &value);
    return s < 0 ? s : value;
}

TESSLIN_API int32_t IMG_scan_set_cap(intptr_t parent, uint16_t capability, int32_t value) {
    if (const int32_t s = open_both(parent); s < 0) return s;
    return set_cap(capability, value);
}

TESSLIN_API int32_t IMG_scan_set_caps(const IMG_SCAN_SETTINGS* settings) {
    if (settings) std::memcpy(&g_settings, settings, sizeof g_settings);
    return 0;
}

TESSLIN_API int32_t IMG_scan_acquire(intptr_t parent, int32_t show_ui) {
    if (const int32_t s = open_manager(parent); s < 0) return s;
    if (const int32_t s = open_source(); s < 0) return s;
    g.last_status = IMG_ERR_STOP;
    if (!show_ui) apply_settings();
    configure_feeder(false, false, false);
    if (const int32_t s = enable_source(parent, show_ui); s < 0) return s;
    event_loop(
        [] {
            TW_IMAGEINFO info{};
            if (to_source(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info) == TWRC_SUCCESS)
                g.last_status = native_after_info(info, false, 0);
            end_transfer();
            if (g.pending != 0) {
                TW_PENDINGXFERS pending{};
                to_source(DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, &pending);
            }
            close_connection();
        },
        [] { return false; });
    close_connection();
    return g.last_status;
}

TESSLIN_API int32_t IMG_scan_acquire_feeder(intptr_t parent, int32_t show_ui) {
    return acquire_feeder(parent, show_ui, false, 0);
}

TESSLIN_API int32_t IMG_scan_acquire_feeder_fast(intptr_t parent, int32_t show_ui,
                                                 int32_t duplex) {
    return acquire_feeder(parent, show_ui, true, duplex);
}

TESSLIN_API int32_t IMG_scan_pages(intptr_t parent, const char* name, int32_t format_code,
                                   int32_t show_ui) {
    return scan_pages(parent, name, format_code, show_ui, false, 0);
}

TESSLIN_API int32_t IMG_scan_pages_fast(intptr_t parent, const char* name, int32_t format_code,
                                        int32_t show_ui, int32_t duplex) {
    return scan_pages(parent, name, format_code, show_ui, true, duplex);
}

TESSLIN_API int32_t IMG_scan_feeder_close(void) {
    close_connection();
    return 0;
}

}  // extern "C"
