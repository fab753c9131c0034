#include "tests/support/cfb_writer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "cfb/format.h"
#include "common/apiutils.h"
#include "common/signatures.h"

namespace tarn::test {

namespace {

namespace fmt = cfb::format;

constexpr uint32_t kFree = fmt::kFreeSector;
constexpr uint32_t kEnd = fmt::kEndOfChain;
constexpr uint32_t kNone = fmt::kNoEntry;
constexpr size_t kEntry = fmt::kDirectoryEntrySize;

void Le16(std::vector<uint8_t>& b, size_t at, uint16_t v) {
    b[at] = static_cast<uint8_t>(v);
    b[at + 1] = static_cast<uint8_t>(v >> 8);
}
void Le32(std::vector<uint8_t>& b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

struct Flat {
    const CfbNode* node;
    int32_t parent;
    std::vector<uint32_t> kids;
    uint32_t left = kNone, right = kNone, child = kNone;
};

// The name as the reader keeps it: low bytes up to the first zero one, a leading control character
// dropped. Upper-case order works on the whole UTF-16 units.
std::u16string ReaderName(const std::u16string& name) {
    std::u16string out;
    for (char16_t unit : name) {
        if ((unit & 0xFF) == 0) break;
        out.push_back(unit & 0xFF);
    }
    if (!name.empty() && (name[0] & 0xFF) < 32 && !out.empty()) out.erase(0, 1);
    return out;
}

bool Less(std::u16string a, std::u16string b, CfbSiblingOrder order) {
    if (order == CfbSiblingOrder::kReader) {
        a = ReaderName(a);
        b = ReaderName(b);
    }
    if (a.size() != b.size()) return a.size() < b.size();
    for (size_t i = 0; i < a.size(); ++i) {
        uint32_t x = a[i], y = b[i];
        if (order == CfbSiblingOrder::kUpperCase) {
            if (x >= u'a' && x <= u'z') x -= 32;
            if (y >= u'a' && y <= u'z') y -= 32;
        }
        if (x != y) return x < y;
    }
    return false;
}

// Makes the sorted siblings kids[lo, hi) a balanced tree; returns the index at its top.
uint32_t Balance(std::vector<Flat>& flat, const std::vector<uint32_t>& kids, size_t lo, size_t hi) {
    if (lo >= hi) return kNone;
    size_t mid = lo + (hi - lo) / 2;
    uint32_t top = kids[mid];
    flat[top].left = Balance(flat, kids, lo, mid);
    flat[top].right = Balance(flat, kids, mid + 1, hi);
    return top;
}

void Flatten(const CfbNode& node, int32_t parent, std::vector<Flat>& flat) {
    auto index = static_cast<uint32_t>(flat.size());
    flat.push_back(Flat{&node, parent, {}});
    for (const auto& c : node.children) {
        flat[index].kids.push_back(static_cast<uint32_t>(flat.size()));
        Flatten(c, static_cast<int32_t>(index), flat);
    }
}

}  // namespace

CfbNode CfbNode::Stream(std::u16string name, std::vector<uint8_t> data) {
    CfbNode n;
    n.name = std::move(name);
    n.data = std::move(data);
    return n;
}

CfbNode CfbNode::Storage(std::u16string name, std::vector<CfbNode> children) {
    CfbNode n;
    n.name = std::move(name);
    n.storage = true;
    n.children = std::move(children);
    return n;
}

std::vector<uint8_t> PatternBytes(size_t count, uint8_t seed) {
    std::vector<uint8_t> out(count);
    uint32_t x = 0x9E3779B9u * (seed + 1u);
    for (size_t i = 0; i < count; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        out[i] = static_cast<uint8_t>(x);
    }
    return out;
}

CfbImage BuildCfb(const CfbNode& root, const CfbOptions& options) {
    CfbImage img;
    const uint32_t ss = 1u << options.sector_shift;
    const uint32_t ms = 1u << options.mini_sector_shift;
    const uint32_t per_sector = ss / 4;
    img.sector_size = ss;
    img.mini_sector_size = ms;

    std::vector<Flat> flat;
    Flatten(root, -1, flat);
    for (auto& f : flat) {
        std::sort(f.kids.begin(), f.kids.end(), [&](uint32_t a, uint32_t b) {
            return Less(flat[a].node->name, flat[b].node->name, options.order);
        });
        f.child = Balance(flat, f.kids, 0, f.kids.size());
    }

    img.entries.resize(flat.size());
    std::vector<uint32_t> fat;  // grows as sectors are handed out
    std::vector<uint32_t> mini_fat;
    std::vector<uint8_t> mini_stream;
    std::vector<std::vector<uint8_t>> sectors;
    auto take_sectors = [&](const std::vector<uint8_t>& data) {
        std::vector<uint32_t> chain;
        for (size_t at = 0; at < data.size(); at += ss) {
            chain.push_back(static_cast<uint32_t>(sectors.size()));
            std::vector<uint8_t> s(ss, 0);
            std::copy_n(data.begin() + at, std::min<size_t>(ss, data.size() - at), s.begin());
            sectors.push_back(std::move(s));
        }
        fat.resize(sectors.size(), kFree);
        for (size_t i = 0; i < chain.size(); ++i) fat[chain[i]] = i + 1 < chain.size() ? chain[i + 1] : kEnd;
        return chain;
    };

    for (size_t i = 1; i < flat.size(); ++i) {
        const CfbNode& n = *flat[i].node;
        CfbEntryInfo& info = img.entries[i];
        info.storage = n.storage;
        info.size = n.storage ? 0 : n.data.size();
        info.start = n.storage || n.data.empty() ? kEnd : 0;
        if (n.storage || n.data.empty()) continue;
        if (n.data.size() < fmt::kMiniStreamCutoff) {
            info.in_mini_stream = true;
            for (size_t at = 0; at < n.data.size(); at += ms) {
                info.chain.push_back(static_cast<uint32_t>(mini_fat.size()));
                mini_fat.push_back(kEnd);
                if (info.chain.size() > 1) mini_fat[info.chain[info.chain.size() - 2]] = info.chain.back();
                std::vector<uint8_t> block(ms, 0);
                std::copy_n(n.data.begin() + at, std::min<size_t>(ms, n.data.size() - at), block.begin());
                mini_stream.insert(mini_stream.end(), block.begin(), block.end());
            }
        } else {
            info.chain = take_sectors(n.data);
        }
        info.start = info.chain.front();
    }
    img.mini_stream_sectors = take_sectors(mini_stream);

    std::vector<uint8_t> directory(((flat.size() * kEntry + ss - 1) / ss) * ss, 0);
    img.directory_sectors = take_sectors(directory);  // filled in below, once every start is known
    std::vector<uint8_t> mini_fat_bytes(((mini_fat.size() * 4 + ss - 1) / ss) * ss, 0xFF);
    for (size_t i = 0; i < mini_fat.size(); ++i) Le32(mini_fat_bytes, 4 * i, mini_fat[i]);
    img.mini_fat_sectors = take_sectors(mini_fat_bytes);

    // The FAT must describe itself and the DIFAT sectors too, so grow them together until they fit.
    size_t used = sectors.size();
    size_t nfat = std::max<size_t>(1, options.min_fat_sectors), ndifat = 0;
    while (true) {
        ndifat = nfat > fmt::kHeaderDifatCount
                     ? (nfat - fmt::kHeaderDifatCount + per_sector - 2) / (per_sector - 1)
                     : 0;
        if (nfat * per_sector >= used + nfat + ndifat) break;
        ++nfat;
    }
    for (size_t i = 0; i < nfat; ++i) img.fat_sectors.push_back(static_cast<uint32_t>(used + i));
    for (size_t i = 0; i < ndifat; ++i) img.difat_sectors.push_back(static_cast<uint32_t>(used + nfat + i));
    fat.resize(nfat * per_sector, kFree);
    for (uint32_t s : img.fat_sectors) fat[s] = fmt::kFatSectorMark;
    for (uint32_t s : img.difat_sectors) fat[s] = fmt::kDifatSectorMark;
    for (size_t i = 0; i < nfat; ++i) {
        std::vector<uint8_t> s(ss);
        for (size_t w = 0; w < per_sector; ++w) Le32(s, 4 * w, fat[i * per_sector + w]);
        sectors.push_back(std::move(s));
    }
    for (size_t d = 0; d < ndifat; ++d) {
        std::vector<uint8_t> s(ss, 0xFF);
        for (size_t w = 0; w + 1 < per_sector; ++w) {
            size_t k = fmt::kHeaderDifatCount + d * (per_sector - 1) + w;
            if (k < nfat) Le32(s, 4 * w, img.fat_sectors[k]);
        }
        Le32(s, ss - 4, d + 1 < ndifat ? img.difat_sectors[d + 1] : kEnd);
        sectors.push_back(std::move(s));
    }

    // Directory entries.
    img.entries[0].storage = true;
    img.entries[0].start = img.mini_stream_sectors.empty() ? kEnd : img.mini_stream_sectors.front();
    img.entries[0].size = mini_stream.size();
    img.entries[0].chain = img.mini_stream_sectors;
    std::vector<uint8_t> dir(img.directory_sectors.size() * ss, 0);
    for (size_t i = 0; i < dir.size() / kEntry; ++i) {
        size_t at = i * kEntry;
        Le32(dir, at + fmt::kLeftSiblingOffset, kNone);
        Le32(dir, at + fmt::kRightSiblingOffset, kNone);
        Le32(dir, at + fmt::kChildOffset, kNone);
    }
    for (size_t i = 0; i < flat.size(); ++i) {
        const CfbNode& n = *flat[i].node;
        CfbEntryInfo& info = img.entries[i];
        info.name = n.name;
        info.index = static_cast<uint32_t>(i);
        info.parent = flat[i].parent;
        size_t at = i * kEntry;
        const size_t units = std::min<size_t>(n.name.size(), fmt::kNameFieldBytes / 2 - 1);
        for (size_t u = 0; u < units; ++u) Le16(dir, at + fmt::kNameOffset + 2 * u, n.name[u]);
        Le16(dir, at + fmt::kNameLengthOffset, static_cast<uint16_t>((units + 1) * 2));
        dir[at + fmt::kObjectTypeOffset] = i == 0      ? fmt::kTypeRoot
                                           : n.storage ? fmt::kTypeStorage
                                                       : fmt::kTypeStream;
        // Black: every tree we write is balanced, so no colour is needed to keep it so.
        dir[at + fmt::kColourOffset] = 1;
        Le32(dir, at + fmt::kLeftSiblingOffset, flat[i].left);
        Le32(dir, at + fmt::kRightSiblingOffset, flat[i].right);
        Le32(dir, at + fmt::kChildOffset, flat[i].child);
        Le32(dir, at + fmt::kStartSectorOffset, info.start);
        Le32(dir, at + fmt::kStreamSizeOffset, static_cast<uint32_t>(info.size));
    }
    for (size_t k = 0; k < img.directory_sectors.size(); ++k)
        std::copy_n(dir.begin() + k * ss, ss, sectors[img.directory_sectors[k]].begin());

    // Header, in a first sector of its own size.
    std::vector<uint8_t> header(ss, 0);
    std::copy(kCompoundSignature.begin(), kCompoundSignature.end(), header.begin() + fmt::kSignatureOffset);
    Le16(header, fmt::kMinorVersionOffset, fmt::kMinorVersion);
    Le16(header, fmt::kMajorVersionOffset, options.sector_shift == 12 ? 4 : 3);
    Le16(header, fmt::kByteOrderOffset, fmt::kByteOrderMark);
    Le16(header, fmt::kSectorShiftOffset, options.sector_shift);
    Le16(header, fmt::kMiniSectorShiftOffset, options.mini_sector_shift);
    Le32(header, fmt::kDirectorySectorCountOffset,
         options.sector_shift == 12 ? static_cast<uint32_t>(img.directory_sectors.size()) : 0);
    Le32(header, fmt::kFatSectorCountOffset, static_cast<uint32_t>(nfat));
    Le32(header, fmt::kFirstDirectorySectorOffset, img.directory_sectors.front());
    Le32(header, fmt::kMiniStreamCutoffOffset, static_cast<uint32_t>(fmt::kMiniStreamCutoff));
    Le32(header, fmt::kFirstMiniFatSectorOffset,
         img.mini_fat_sectors.empty() ? kEnd : img.mini_fat_sectors.front());
    Le32(header, fmt::kMiniFatSectorCountOffset, static_cast<uint32_t>(img.mini_fat_sectors.size()));
    Le32(header, fmt::kFirstDifatSectorOffset, img.difat_sectors.empty() ? kEnd : img.difat_sectors.front());
    Le32(header, fmt::kDifatSectorCountOffset, static_cast<uint32_t>(ndifat));
    for (size_t i = 0; i < fmt::kHeaderDifatCount; ++i)
        Le32(header, fmt::kHeaderDifatOffset + 4 * i, i < nfat ? img.fat_sectors[i] : kFree);

    img.bytes = std::move(header);
    for (const auto& s : sectors) img.bytes.insert(img.bytes.end(), s.begin(), s.end());
    return img;
}

size_t CfbImage::EntryOffset(uint32_t index) const {
    size_t per = sector_size / kEntry;
    return SectorOffset(directory_sectors.at(index / per)) + (index % per) * kEntry;
}

const CfbEntryInfo& CfbImage::Find(const std::vector<std::u16string>& path) const {
    int32_t current = 0;
    for (const auto& piece : path) {
        int32_t found = -1;
        for (const auto& e : entries)
            if (e.parent == current && e.name == piece) found = static_cast<int32_t>(e.index);
        if (found < 0) throw std::out_of_range("no such entry in the fixture");
        current = found;
    }
    return entries[current];
}

void CfbImage::Put16(size_t offset, uint16_t value) { Le16(bytes, offset, value); }
void CfbImage::Put32(size_t offset, uint32_t value) { Le32(bytes, offset, value); }

void CfbImage::SetFatEntry(uint32_t sector, uint32_t next) {
    size_t per = sector_size / 4;
    Put32(SectorOffset(fat_sectors.at(sector / per)) + 4 * (sector % per), next);
}

void CfbImage::SetMiniFatEntry(uint32_t block, uint32_t next) {
    size_t per = sector_size / 4;
    Put32(SectorOffset(mini_fat_sectors.at(block / per)) + 4 * (block % per), next);
}

void CfbImage::SetEntryField(uint32_t index, size_t field_offset, uint32_t value) {
    Put32(EntryOffset(index) + field_offset, value);
}

krn_handle OpenThroughKernel(const std::string& path) {
    std::u16string wide(path.begin(), path.end());
    return krnOpenFile(wide.c_str(), 0, kOpenShareMode);
}

KernelTempFile::KernelTempFile(const std::vector<uint8_t>& bytes) {
    const char* dir = std::getenv("TMPDIR");
    std::string pattern = std::string(dir && *dir ? dir : "/tmp") + "/tarn-cfb-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = mkstemp(name.data());
    if (fd < 0) throw std::runtime_error("mkstemp failed");
    path_ = name.data();
    FILE* f = fdopen(fd, "wb");
    if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
    handle_ = OpenThroughKernel(path_);
}

KernelTempFile::~KernelTempFile() {
    if (handle_ != KRN_NO_HANDLE) krnCloseFile(handle_);
    std::remove(path_.c_str());
}

}  // namespace tarn::test
