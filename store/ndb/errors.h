// The errors of the store layers (node database and everything built on it). Each carries a fixed
// message; callers that treat every store failure alike catch std::exception, which all of them,
// key_not_found included, derive from.
#ifndef TARN_STORE_NDB_ERRORS_H_
#define TARN_STORE_NDB_ERRORS_H_

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>

namespace tarn::ndb {

// The file is not a store we can read, or a structure in it is damaged.
class database_corrupt : public std::runtime_error {
  public:
    explicit database_corrupt(const std::string& message) : std::runtime_error(message) {}
};

// The header's version does not fit the layout being tried. open_database catches exactly this one
// to retry with the other layout.
class invalid_format : public database_corrupt {
  public:
    invalid_format() : database_corrupt("Unexpected Database Format") {}
};

// A checked value differs from the one computed: where (location and id; both 0 for the header), and
// the two values.
class value_mismatch : public database_corrupt {
  public:
    value_mismatch(const std::string& message, uint64_t location, uint64_t id, uint32_t computed,
                   uint32_t stored)
        : database_corrupt(message), location_(location), id_(id), computed_(computed), stored_(stored) {}
    uint64_t location() const { return location_; }
    uint64_t id() const { return id_; }
    uint32_t computed() const { return computed_; }
    uint32_t stored() const { return stored_; }

  private:
    uint64_t location_;
    uint64_t id_;
    uint32_t computed_;
    uint32_t stored_;
};

// A CRC differs.
class crc_fail : public value_mismatch {
  public:
    using value_mismatch::value_mismatch;
};

class unexpected_page : public database_corrupt {
  public:
    explicit unexpected_page(const std::string& message) : database_corrupt(message) {}
};

class unexpected_block : public database_corrupt {
  public:
    explicit unexpected_block(const std::string& message) : database_corrupt(message) {}
};

// A page or block signature differs (the layers above use it for their own signature bytes too:
// location 0, the node id, the value found and the value expected).
class sig_mismatch : public value_mismatch {
  public:
    using value_mismatch::value_mismatch;
};

// A B-tree has no entry for the key. Deliberately not a runtime_error: callers use it to ask
// "is it there?" and catch it apart from damage.
template <typename K>
class key_not_found : public std::exception {
  public:
    explicit key_not_found(const K& key) : key_(key) {}
    const char* what() const noexcept override { return "key not found"; }
    const K& which() const { return key_; }

  private:
    K key_;
};

class not_implemented : public std::logic_error {
  public:
    explicit not_implemented(const std::string& message) : std::logic_error(message) {}
};

}  // namespace tarn::ndb

#endif  // TARN_STORE_NDB_ERRORS_H_
