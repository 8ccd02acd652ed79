// One table of status codes with a name and a sentence each, used by the
// command-line tool and the tests alike.
#include "tesslin/tesslin.h"

namespace {

struct StatusText {
    int32_t code;
    const char* name;
    const char* message;
};

constexpr StatusText kStatuses[] = {
    {IMG_ERR_MEMORY, "IMG_ERR_MEMORY", "out of memory"},
    {IMG_ERR_OPEN, "IMG_ERR_OPEN", "cannot open file"},
    {IMG_ERR_BAD_IMAGE, "IMG_ERR_BAD_IMAGE", "invalid image data"},
    {IMG_ERR_CREATE, "IMG_ERR_CREATE", "cannot create output file"},
    {IMG_ERR_UNSUPPORTED, "IMG_ERR_UNSUPPORTED", "unsupported format or operation"},
    {IMG_ERR_VARIANT, "IMG_ERR_VARIANT", "unsupported format variant"},
    {IMG_ERR_WRITE, "IMG_ERR_WRITE", "write failed"},
    {IMG_ERR_DISPLAY_RECT, "IMG_ERR_DISPLAY_RECT", "display rectangle is empty"},
    {IMG_ERR_NO_PAGE, "IMG_ERR_NO_PAGE", "page does not exist"},
    {IMG_ERR_READ, "IMG_ERR_READ", "data is truncated"},
    {IMG_ERR_HANDLE, "IMG_ERR_HANDLE", "invalid bitmap handle"},
    {IMG_ERR_SCAN_REFUSED, "IMG_ERR_SCAN_REFUSED", "scanner refused the operation"},
    {IMG_ERR_SCAN_MANAGER, "IMG_ERR_SCAN_MANAGER", "scanner manager module not available"},
    {IMG_ERR_STOP, "IMG_ERR_STOP", "stopped after the header"},
    {IMG_ERR_DEPTH, "IMG_ERR_DEPTH", "bit depth not supported"},
    {IMG_ERR_NOT_GRAY, "IMG_ERR_NOT_GRAY", "image is not greyscale"},
    {IMG_ERR_NO_TRANSPARENCY, "IMG_ERR_NO_TRANSPARENCY", "no transparent colour"},
    {IMG_ERR_COMPRESSION, "IMG_ERR_COMPRESSION", "compression not supported"},
    {IMG_ERR_SCAN_NO_PAPER, "IMG_ERR_SCAN_NO_PAPER", "no paper in the scanner's feeder"},
    {IMG_ERR_SCAN_FEEDER, "IMG_ERR_SCAN_FEEDER", "scanner feeder cannot be enabled"},
    {IMG_ERR_GIF_BLOCK, "IMG_ERR_GIF_BLOCK", "malformed GIF block"},
    {IMG_ERR_NOT_FOUND, "IMG_ERR_NOT_FOUND", "not found"},
    {IMG_ERR_NOT_TILED, "IMG_ERR_NOT_TILED", "image is not tiled"},
    {IMG_ERR_SCAN_CAPABILITY, "IMG_ERR_SCAN_CAPABILITY", "scanner capability refused"},
    {IMG_ERR_SCAN_AUTOFEED, "IMG_ERR_SCAN_AUTOFEED", "scanner automatic feeding cannot be enabled"},
    {IMG_ERR_PLUGIN, "IMG_ERR_PLUGIN", "PDF module not available"},
    {IMG_ERR_ABIC_PLUGIN, "IMG_ERR_ABIC_PLUGIN", "ABIC module not available"},
    {IMG_ERR_STREAM_FAULT, "IMG_ERR_STREAM_FAULT", "fault during stream access"},
    {IMG_ERR_PCL_PLUGIN, "IMG_ERR_PCL_PLUGIN", "PCL module not available"},
    {IMG_ERR_JP2_PLUGIN, "IMG_ERR_JP2_PLUGIN", "JPEG 2000 module not available"},
    {IMG_ERR_TEXT_NOT_FOUND, "IMG_ERR_TEXT_NOT_FOUND", "text not found"},
    {IMG_ERR_DOC_PLUGIN, "IMG_ERR_DOC_PLUGIN", "document module not available"},
};

const StatusText* find(int32_t status) {
    for (const auto& s : kStatuses)
        if (s.code == status) return &s;
    return nullptr;
}

}  // namespace

extern "C" {

TESSLIN_API const char* IMG_status_name(int32_t status) {
    if (status >= 0) return "IMG_OK";
    const StatusText* s = find(status);
    return s ? s->name : "IMG_ERR_UNKNOWN";
}

TESSLIN_API const char* IMG_status_message(int32_t status) {
    if (status >= 0) return "success";
    const StatusText* s = find(status);
    return s ? s->message : "unknown status";
}

}  // extern "C"
