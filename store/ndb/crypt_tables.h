// The format's published byte tables (see crypt_tables.cpp for what each one is). Shared by the reader
// and the fixture writer: they are on-disk constants, not logic.
#ifndef TARN_STORE_NDB_CRYPT_TABLES_H_
#define TARN_STORE_NDB_CRYPT_TABLES_H_

#include <array>
#include <cstdint>

namespace tarn::ndb::tables {

extern const std::array<uint8_t, 256> kMpbbR;
extern const std::array<uint8_t, 256> kMpbbS;
extern const std::array<uint8_t, 256> kMpbbI;

}  // namespace tarn::ndb::tables

#endif  // TARN_STORE_NDB_CRYPT_TABLES_H_
