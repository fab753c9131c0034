// The 12-byte probe that tells the three kinds of source apart.
#ifndef TARN_PST_PROBE_H_
#define TARN_PST_PROBE_H_

#include <cstddef>
#include <cstdint>
#include <span>

#include "kernel/tarnkrn.h"

namespace tarn {

// What a source is, as reported in the toolkit's format word.
enum InputKind : int32_t {
    kInputPstStore = 385,
    kInputMessageFile = 386,  // an Outlook message in a compound file
    kInputMimeText = 387,     // anything else, read as an Internet message
    kInputUnsupported = 388,  // never probed; marks a record that holds no document yet
};

constexpr size_t kProbeBytes = 12;

// Classifies the first bytes of a source. Requires: at least kProbeBytes bytes. Only the first eight
// are examined; the rest are read so that every kind sees the same header.
InputKind ProbeHeader(std::span<const std::byte, kProbeBytes> header);

// Seeks `handle` to 0, reads kProbeBytes and classifies them. 1 and *kind set, or -7 when fewer bytes
// could be read.
int32_t ProbeSource(krn_handle handle, InputKind* kind);

}  // namespace tarn

#endif  // TARN_PST_PROBE_H_
