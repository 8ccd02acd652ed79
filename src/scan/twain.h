// The records and constants the scanning operations and the data source
// manager modules share. The library talks to a manager module only through
// its one entry point `DSM_Entry(origin, destination, group, argument type,
// message, data)`; every record below travels through that call.
//
// Memory that crosses the call: containers a source returns from a
// capability query (TW_CAPABILITY::hContainer) and the DIB of a native
// transfer are allocated by the module with malloc and released by the
// library with free. Containers the library hands in (MSG_SET) belong to the
// library. Records are packed on 2-byte boundaries, so a TW_ONEVALUE is
// 6 bytes.
//
// This header is C-compatible so that the scripted test manager (C) and the
// SANE-driven manager (C++) include the same definitions.
#ifndef TESSLIN_SCAN_TWAIN_H
#define TESSLIN_SCAN_TWAIN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma pack(push, 2)

typedef struct {
    int16_t Whole;
    uint16_t Frac;
} TW_FIX32;

typedef struct {
    uint16_t MajorNum, MinorNum, Language, Country;
    char Info[34];
} TW_VERSION;

typedef struct {
    uint32_t Id;
    TW_VERSION Version;
    uint16_t ProtocolMajor, ProtocolMinor;
    uint32_t SupportedGroups;
    char Manufacturer[34];
    char ProductFamily[34];
    char ProductName[34];
} TW_IDENTITY;

typedef struct {
    uint16_t ItemType;
    uint32_t Item;
} TW_ONEVALUE;

typedef struct {
    uint16_t Cap;
    uint16_t ConType;
    void* hContainer;
} TW_CAPABILITY;

typedef struct {
    uint16_t ShowUI;
    uint16_t ModalUI;
    void* hParent;
} TW_USERINTERFACE;

typedef struct {
    void* pEvent;
    uint16_t TWMessage;
} TW_EVENT;

typedef struct {
    TW_FIX32 XResolution, YResolution;
    int32_t ImageWidth, ImageLength;
    int16_t SamplesPerPixel;
    int16_t BitsPerSample[8];
    int16_t BitsPerPixel;
    uint16_t Planar;
    int16_t PixelType;
    uint16_t Compression;
} TW_IMAGEINFO;

typedef struct {
    TW_FIX32 Left, Top, Right, Bottom;
} TW_FRAME;

typedef struct {
    TW_FRAME Frame;
    uint32_t DocumentNumber, PageNumber, FrameNumber;
} TW_IMAGELAYOUT;

typedef struct {
    uint32_t MinBufSize, MaxBufSize, Preferred;
} TW_SETUPMEMXFER;

typedef struct {
    uint32_t Flags;
    uint32_t Length;
    void* TheMem;
} TW_MEMORY;

typedef struct {
    uint16_t Compression;
    uint32_t BytesPerRow, Columns, Rows, XOffset, YOffset, BytesWritten;
    TW_MEMORY Memory;
} TW_IMAGEMEMXFER;

// Count 0xFFFF: more transfers follow, how many is not known.
typedef struct {
    uint16_t Count;
    uint32_t Reserved;
} TW_PENDINGXFERS;

#pragma pack(pop)

typedef uint16_t (*DSM_ENTRYPROC)(TW_IDENTITY* origin, TW_IDENTITY* dest, uint32_t group,
                                  uint16_t dat, uint16_t msg, void* data);

// Data groups.
enum { DG_CONTROL = 0x0001, DG_IMAGE = 0x0002 };

// Data argument types.
enum {
    DAT_CAPABILITY = 0x0001,
    DAT_EVENT = 0x0002,
    DAT_IDENTITY = 0x0003,
    DAT_PARENT = 0x0004,
    DAT_PENDINGXFERS = 0x0005,
    DAT_SETUPMEMXFER = 0x0006,
    DAT_USERINTERFACE = 0x0009,
    DAT_IMAGEINFO = 0x0101,
    DAT_IMAGELAYOUT = 0x0102,
    DAT_IMAGEMEMXFER = 0x0103,
    DAT_IMAGENATIVEXFER = 0x0104
};

// Messages.
enum {
    MSG_NULL = 0x0000,
    MSG_GET = 0x0001,
    MSG_GETCURRENT = 0x0002,
    MSG_GETDEFAULT = 0x0003,
    MSG_SET = 0x0006,
    MSG_RESET = 0x0007,
    MSG_XFERREADY = 0x0101,
    MSG_CLOSEDSREQ = 0x0102,
    MSG_OPENDSM = 0x0301,
    MSG_CLOSEDSM = 0x0302,
    MSG_OPENDS = 0x0401,
    MSG_CLOSEDS = 0x0402,
    MSG_USERSELECT = 0x0403,
    MSG_DISABLEDS = 0x0501,
    MSG_ENABLEDS = 0x0502,
    MSG_ENABLEDSUIONLY = 0x0503,
    MSG_PROCESSEVENT = 0x0601,
    MSG_ENDXFER = 0x0701
};

// Return codes.
enum {
    TWRC_SUCCESS = 0,
    TWRC_FAILURE = 1,
    TWRC_CHECKSTATUS = 2,
    TWRC_CANCEL = 3,
    TWRC_DSEVENT = 4,
    TWRC_NOTDSEVENT = 5,
    TWRC_XFERDONE = 6
};

// Containers and item types.
enum { TWON_ONEVALUE = 5, TWON_DONTCARE = 0xFFFF };
enum {
    TWTY_INT8 = 0,
    TWTY_INT16 = 1,
    TWTY_INT32 = 2,
    TWTY_UINT8 = 3,
    TWTY_UINT16 = 4,
    TWTY_UINT32 = 5,
    TWTY_BOOL = 6
};

// Capabilities.
enum {
    CAP_FEEDERENABLED = 0x1002,
    CAP_FEEDERLOADED = 0x1003,
    CAP_AUTOFEED = 0x1007,
    CAP_DUPLEX = 0x1012,
    CAP_DUPLEXENABLED = 0x1013,
    CAP_ENABLEDSUIONLY = 0x1014,
    ICAP_COMPRESSION = 0x0100,
    ICAP_PIXELTYPE = 0x0101,
    ICAP_UNITS = 0x0102,
    ICAP_XRESOLUTION = 0x1118,
    ICAP_YRESOLUTION = 0x1119,
    ICAP_BITDEPTH = 0x112B
};

// Capability values.
enum { TWPT_BW = 0, TWPT_GRAY = 1, TWPT_RGB = 2 };
enum { TWUN_INCHES = 0, TWUN_CENTIMETERS = 1 };
enum { TWCP_NONE = 0, TWCP_GROUP4 = 5 };
enum { TWMF_APPOWNS = 0x0001, TWMF_POINTER = 0x0008 };

#ifdef __cplusplus
}
#endif

#endif  // TESSLIN_SCAN_TWAIN_H
