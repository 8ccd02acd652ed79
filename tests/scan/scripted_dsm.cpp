// A data source manager module for the scanning tests: one source whose
// behaviour a script in $TESSLIN_SCRIPTED_DSM sets ("key=value;..."), read
// when the source opens, and which appends one line per call that matters
// to the file $TESSLIN_SCRIPTED_LOG.
//
//   pages=N        sheets in the feeder (default 3); 0 with a feeder: empty
//   width=W height=H bits=1|8|24   page size and depth (default 64x48x1)
//   g4=1           offers Group 4 memory transfers of 1-bit pages
//   preferred=N    the preferred memory-transfer size it names (default 0)
//   cancel_at=K    transfer K (from 0) is cancelled
//   jam_at=K       the image information of transfer K fails (paper jam)
//   endxfer_fail=1 ending a transfer fails
//   no_feeder=1    the feeder cannot be switched on (it reads back 0)
//   feeder_fail=1  reading the feeder capability fails
//   autofeed_fail=1  automatic feeding cannot be switched on
//   loaded=0       the feeder reports no paper
//   uionly=0       the source cannot show its dialog alone
//   open_fail=1    the source does not open
//   units=1        the source works in centimetres
//   res=N          its resolution (default 300)
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "core/dib.h"
#include "scan/twain.h"
#include "tesslin/tesslin.h"

namespace {

using namespace tesslin;

std::map<std::string, long> g_script;
bool g_manager = false, g_open = false;
int g_transfer = 0;    // transfers begun
int g_left = 0;        // sheets left in the feeder
bool g_ready = false;  // a transfer is ready
std::vector<uint16_t> g_events;
std::vector<uint8_t> g_coded;
size_t g_coded_at = 0;

long opt(const char* key, long fallback) {
    auto it = g_script.find(key);
    return it == g_script.end() ? fallback : it->second;
}

void log(const char* format, ...) __attribute__((format(printf, 1, 2)));
void log(const char* format, ...) {
    const char* path = std::getenv("TESSLIN_SCRIPTED_LOG");
    if (!path) return;
    FILE* f = std::fopen(path, "a");
    if (!f) return;
    va_list args;
    va_start(args, format);
    std::vfprintf(f, format, args);
    va_end(args);
    std::fputc('\n', f);
    std::fclose(f);
}

void read_script() {
    g_script.clear();
    const char* text = std::getenv("TESSLIN_SCRIPTED_DSM");
    std::istringstream in(text ? text : "");
    for (std::string item; std::getline(in, item, ';');)
        if (const size_t eq = item.find('='); eq != std::string::npos)
            g_script[item.substr(0, eq)] = std::atol(item.c_str() + eq + 1);
}

int width() { return int(opt("width", 64)); }
int height() { return int(opt("height", 48)); }
int bits() { return int(opt("bits", 1)); }

// Sample of page n at (x, y), as scan_test.cpp's scripted_page draws it; 1 bit: 0 black, 1 white.
int pixel(int n, int x, int y, int channel) {
    if (bits() == 1) return ((x / 8 + y / 8 + n) & 1) ? 0 : 1;
    const int grey = (x * 3 + y + n) & 255;
    return channel == 0 ? grey : channel == 1 ? x & 255 : y & 255;
}

size_t stride() { return row_bytes(uint32_t(width()), uint32_t(bits())); }

// The page as a DIB (1 bit: palette black, white), malloc.
void* page_dib(int n) {
    const int b = bits(), w = width(), h = height();
    const uint32_t colours = palette_entries(uint32_t(b));
    auto* dib = static_cast<uint8_t*>(std::calloc(1, 40 + colours * 4 + stride() * size_t(h)));
    *reinterpret_cast<DibHeader*>(dib) = dib_header(w, h, uint16_t(b));
    for (uint32_t i = 0; i < colours; ++i) {
        const uint8_t v = uint8_t(colours == 2 ? i * 255 : i);
        dib_palette(dib)[i] = RgbQuad{v, v, v, 0};
    }
    uint8_t* rows = dib + 40 + colours * 4;
    for (int y = 0; y < h; ++y) {
        uint8_t* out = rows + size_t(h - 1 - y) * stride();
        for (int x = 0; x < w; ++x) {
            if (b == 1)
                out[x / 8] |= uint8_t(pixel(n, x, y, 0) << (7 - x % 8));
            else if (b == 8)
                out[x] = uint8_t(pixel(n, x, y, 0));
            else
                for (int c = 0; c < 3; ++c) out[x * 3 + c] = uint8_t(pixel(n, x, y, c));
        }
    }
    return dib;
}

int32_t supply(intptr_t user, uint8_t* buffer, int32_t row, uint32_t count) {
    std::memset(buffer, 0, count);
    for (int x = 0; x < width() && size_t(x / 8) < count; ++x)
        buffer[x / 8] |= uint8_t(pixel(int(user), x, row, 0) << (7 - x % 8));
    return 0;
}

// Group 4 data of (1-bit) page n, rows from supply under the page's header.
bool code_page(int n) {
    void* dib = page_dib(n);
    void* block = tesslin_block_alloc(uint32_t(stride() * size_t(height()) * 2 + 4096));
    const int32_t got =
        IMGLOW_save_bitmap_mem(block, static_cast<IMG_BITMAPINFOHEADER*>(dib), IMG_FORMAT_RAW_G4, &supply, n);
    std::free(dib);
    if (got > 0) g_coded.assign(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + got);
    tesslin_block_free(block);
    g_coded_at = 0;
    return got > 0;
}

// The capabilities the source knows: the type a GET answers with (0: a GET
// fails), the value it answers, and whether a SET keeps the value given (the
// others accept any value and keep theirs).
struct Cap {
    uint16_t type;
    uint32_t value;
    bool kept;
};
std::map<uint16_t, Cap> g_caps;

void reset_caps() {
    g_caps = {{CAP_FEEDERENABLED, {TWTY_BOOL, 0, !opt("no_feeder", 0)}},
              {CAP_FEEDERLOADED, {TWTY_BOOL, uint32_t(opt("loaded", 1)), false}},
              {CAP_AUTOFEED, {TWTY_BOOL, 0, true}},
              {CAP_DUPLEX, {TWTY_UINT16, 1, false}},
              {CAP_DUPLEXENABLED, {0, 0, true}},
              {CAP_ENABLEDSUIONLY, {TWTY_BOOL, uint32_t(opt("uionly", 1)), false}},
              {ICAP_COMPRESSION, {TWTY_UINT16, 0, true}},
              {ICAP_PIXELTYPE, {0, 0, false}},
              {ICAP_BITDEPTH, {0, 0, false}},
              {ICAP_UNITS, {TWTY_UINT16, uint32_t(opt("units", 0)), false}},
              {ICAP_XRESOLUTION, {TWTY_UINT32, uint32_t(opt("res", 300)), false}},
              {ICAP_YRESOLUTION, {0, 0, false}}};
}

uint16_t capability(uint16_t msg, TW_CAPABILITY* c) {
    const auto it = g_caps.find(c->Cap);
    if (msg == MSG_SET) {
        TW_ONEVALUE one;
        std::memcpy(&one, c->hContainer, sizeof one);
        log("SET %04x %u type %u", c->Cap, one.Item, one.ItemType);
        if (it == g_caps.end() || (c->Cap == CAP_AUTOFEED && opt("autofeed_fail", 0))) return TWRC_FAILURE;
        if (it->second.kept) it->second.value = one.Item;
        return TWRC_SUCCESS;
    }
    log("GET %04x", c->Cap);
    if (it == g_caps.end() || !it->second.type || (c->Cap == CAP_FEEDERENABLED && opt("feeder_fail", 0)))
        return TWRC_FAILURE;
    auto* one = static_cast<TW_ONEVALUE*>(std::malloc(sizeof(TW_ONEVALUE)));
    one->ItemType = it->second.type;
    one->Item = it->second.value;
    c->ConType = TWON_ONEVALUE;
    c->hContainer = one;
    return TWRC_SUCCESS;
}

void fix(TW_FIX32* f, long value) {
    f->Whole = int16_t(value);
    f->Frac = 0;
}

uint16_t to_source(uint32_t group, uint16_t dat, uint16_t msg, void* data) {
    if (!g_open) return TWRC_FAILURE;
    if (group == DG_CONTROL && dat == DAT_CAPABILITY) return capability(msg, static_cast<TW_CAPABILITY*>(data));
    if (group == DG_CONTROL && dat == DAT_USERINTERFACE) {
        const auto* ui = static_cast<TW_USERINTERFACE*>(data);
        if (msg == MSG_ENABLEDS || msg == MSG_ENABLEDSUIONLY) {
            log("%s show %u", msg == MSG_ENABLEDS ? "ENABLEDS" : "ENABLEDSUIONLY", ui->ShowUI);
            if (msg == MSG_ENABLEDS && g_left > 0) {
                g_ready = true;
                g_events.assign(1, MSG_XFERREADY);
            } else {
                g_events.assign(1, MSG_CLOSEDSREQ);
            }
            return TWRC_SUCCESS;
        }
        if (msg == MSG_DISABLEDS) {
            log("DISABLEDS");
            g_ready = false;
            return TWRC_SUCCESS;
        }
        return TWRC_FAILURE;
    }
    if (group == DG_CONTROL && dat == DAT_EVENT) {
        auto* e = static_cast<TW_EVENT*>(data);
        if (g_events.empty()) {
            e->TWMessage = MSG_NULL;
            return TWRC_NOTDSEVENT;
        }
        e->TWMessage = g_events.front();
        g_events.erase(g_events.begin());
        return TWRC_DSEVENT;
    }
    if (group == DG_CONTROL && dat == DAT_PENDINGXFERS) {
        auto* p = static_cast<TW_PENDINGXFERS*>(data);
        log("%s", msg == MSG_ENDXFER ? "ENDXFER" : "RESET");
        if (msg == MSG_ENDXFER && opt("endxfer_fail", 0)) return TWRC_FAILURE;
        if (msg == MSG_ENDXFER) {
            --g_left;
            ++g_transfer;
        } else {
            g_left = 0;
        }
        g_ready = g_left > 0;
        p->Count = uint16_t(g_left > 0 ? 0xFFFF : 0);
        if (!g_ready) g_events.assign(1, MSG_CLOSEDSREQ);
        g_coded.clear();
        return TWRC_SUCCESS;
    }
    if (group == DG_CONTROL && dat == DAT_SETUPMEMXFER) {
        auto* m = static_cast<TW_SETUPMEMXFER*>(data);
        m->MinBufSize = 0;
        m->MaxBufSize = 0;
        m->Preferred = uint32_t(opt("preferred", 0));
        return TWRC_SUCCESS;
    }
    if (group == DG_IMAGE && dat == DAT_IMAGELAYOUT && msg == MSG_SET) {
        const auto* l = static_cast<TW_IMAGELAYOUT*>(data);
        log("LAYOUT %d %u %d %u %d %u %d %u", l->Frame.Left.Whole, l->Frame.Left.Frac,
            l->Frame.Top.Whole, l->Frame.Top.Frac, l->Frame.Right.Whole, l->Frame.Right.Frac,
            l->Frame.Bottom.Whole, l->Frame.Bottom.Frac);
        return TWRC_SUCCESS;
    }
    if (group == DG_IMAGE && dat == DAT_IMAGEINFO) {
        if (!g_ready || g_transfer == opt("jam_at", -1)) return TWRC_FAILURE;
        auto* info = static_cast<TW_IMAGEINFO*>(data);
        std::memset(info, 0, sizeof *info);
        fix(&info->XResolution, opt("res", 300));
        fix(&info->YResolution, opt("res", 300));
        info->ImageWidth = width();
        info->ImageLength = height();
        info->BitsPerPixel = int16_t(bits());
        info->Compression = uint16_t(bits() == 1 && opt("g4", 0) ? g_caps[ICAP_COMPRESSION].value : 0);
        return TWRC_SUCCESS;
    }
    if (group == DG_IMAGE && dat == DAT_IMAGENATIVEXFER) {
        if (!g_ready) return TWRC_FAILURE;
        log("NATIVE %d", g_transfer);
        if (g_transfer == opt("cancel_at", -1)) return TWRC_CANCEL;
        *static_cast<void**>(data) = page_dib(g_transfer);
        return TWRC_XFERDONE;
    }
    if (group == DG_IMAGE && dat == DAT_IMAGEMEMXFER) {
        auto* x = static_cast<TW_IMAGEMEMXFER*>(data);
        if (!g_ready || !opt("g4", 0)) return TWRC_FAILURE;
        log("MEMORY %d length %u flags %u", g_transfer, x->Memory.Length, x->Memory.Flags);
        if (g_transfer == opt("cancel_at", -1)) return TWRC_CANCEL;
        if (g_coded.empty() && !code_page(g_transfer)) return TWRC_FAILURE;
        // Small pieces, so that a page takes several calls.
        const size_t n = std::min<size_t>({g_coded.size() - g_coded_at, x->Memory.Length, 200});
        std::memcpy(x->Memory.TheMem, g_coded.data() + g_coded_at, n);
        g_coded_at += n;
        x->BytesWritten = uint32_t(n);
        return g_coded_at == g_coded.size() ? TWRC_XFERDONE : TWRC_SUCCESS;
    }
    return TWRC_FAILURE;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) uint16_t DSM_Entry(TW_IDENTITY* origin,
                                                                     TW_IDENTITY* dest,
                                                                     uint32_t group, uint16_t dat,
                                                                     uint16_t msg, void* data) {
    if (dest) return to_source(group, dat, msg, data);
    auto* id = static_cast<TW_IDENTITY*>(data);
    if (dat == DAT_PARENT && msg == MSG_OPENDSM) {
        log("OPENDSM %s", origin->ProductName);
        origin->Id = 7;
        g_manager = true;
        return TWRC_SUCCESS;
    }
    if (dat == DAT_PARENT && msg == MSG_CLOSEDSM) {
        log("CLOSEDSM");
        g_manager = false;
        return TWRC_SUCCESS;
    }
    if (!g_manager || dat != DAT_IDENTITY) return TWRC_FAILURE;
    if (msg == MSG_OPENDS) {
        read_script();
        log("OPENDS");
        if (opt("open_fail", 0)) return TWRC_FAILURE;
        std::memset(id, 0, sizeof *id);
        id->Id = 8;
        std::strcpy(id->ProductName, "scripted");
        g_open = true;
        g_ready = false;
        g_transfer = 0;
        g_left = int(opt("pages", 3));
        reset_caps();
        g_events.clear();
        g_coded.clear();
        return TWRC_SUCCESS;
    }
    if (msg == MSG_CLOSEDS) {
        log("CLOSEDS");
        g_open = false;
        return TWRC_SUCCESS;
    }
    if (msg == MSG_GETDEFAULT || msg == MSG_USERSELECT) {
        std::memset(id, 0, sizeof *id);
        std::strcpy(id->ProductName, "scripted");
        return TWRC_SUCCESS;
    }
    return TWRC_FAILURE;
}
