// Image-only PDF output (format code IMG_FORMAT_PDF): every save writes one
// page showing one image, Group 4 coded when the image is bilevel and JPEG
// coded otherwise, and a save into a document this writer made adds a page
// to it. Reading PDF stays with the plug-in modules (pipeline/codec.h).
// docs/pdf.md describes the layout and the choices on unusual documents.
#pragma once

#include <cstdint>
#include <vector>

#include "pipeline/codec.h"

namespace tesslin::pdf {

// The encoder of IMG_FORMAT_PDF (encoder contract of pipeline/codec.h; the
// variant is unused). The document is the whole stream from offset 0 to its
// length (stream::length: a memory stream's length is its position, so a
// memory block always receives a new document): when it already holds a
// document of this writer's layout the page is appended (its objects
// written over the old cross-reference table, a new table and trailer after
// them), otherwise a new document is written from offset 0 and the file
// cut to its end.
// Page size: the IMGLOW_set_pdf_output setting. Returns 0, or
//   IMG_ERR_DEPTH        16-bit images and depths no DIB has
//   IMG_ERR_BAD_IMAGE    a width or height below 1, a page size below 1
//   IMG_ERR_MEMORY       no memory, or a document of this writer's layout
//                        whose page tree holds no readable /Count
//   IMG_ERR_VARIANT      a readable PDF of another layout (not appended to,
//                        not overwritten)
//   IMG_ERR_WRITE        a short write; the stream's fault (-38)
//   the Group 4 or JPEG encoder's status, the supply's status.
// On every failure after the first byte is written the stream is put back:
// the bytes overwritten are written back and the file cut to its old length
// (stream::truncate; with application I/O hooks installed nothing can be
// cut, so bytes past the old end may remain).
int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply, intptr_t user,
               int32_t variant);

// What the writer finds in a stream it is asked to append to.
struct Document {
    bool exists = false;        // a document of this writer's layout
    uint32_t pages = 0;         // k: pages already in it
    uint32_t xref_at = 0;       // startxref: where the new page's objects go
    std::vector<uint32_t> offsets;  // offsets of objects 0 .. 7k (0 for unused ones)
};

// Reads the end of the document at offset 0 of the stream (its length
// `end`): 0 with doc->exists false for a new document (shorter than 200
// bytes, no end marker, a cross-reference table, catalogue or page tree
// reference that cannot be read), 0 with the document for one of this
// writer's layout, IMG_ERR_MEMORY when the page tree holds no readable
// count (or no memory), IMG_ERR_VARIANT for a readable document of another
// layout.
int32_t open_document(int32_t stream, uint32_t end, Document* doc);

}  // namespace tesslin::pdf
