// The growable buffer's contents, sticky status and memory accounting, and edits of counted strings.
#include "pst/render/text_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

#include "common/status.h"
#include "kernel/tarnkrn_control.h"

namespace tarn {
namespace {

TEST(GrowBuffer, AppendsAssignsAndTerminates) {
    GrowBuffer buffer;
    buffer.Init(0, 4, /*zero_fill=*/true);
    EXPECT_EQ(buffer.Append(nullptr, 0), kStatusOk);
    EXPECT_EQ(buffer.Append(nullptr, 3), kStatusNullPointer);
    EXPECT_EQ(buffer.Terminate(), kStatusOk);  // an empty buffer gets its NUL
    EXPECT_EQ(buffer.view(), std::string_view("\0", 1));
    EXPECT_EQ(buffer.Assign("abc", 3), kStatusOk);
    EXPECT_EQ(buffer.view(), "abc");
    // Zero fill: the spare room behind the contents is clear.
    for (size_t i = buffer.length(); i < buffer.capacity(); ++i) EXPECT_EQ(buffer.data()[i], std::byte{0});
    EXPECT_EQ(buffer.Terminate(), kStatusOk);
    EXPECT_EQ(buffer.Terminate(), kStatusOk);  // already terminated: unchanged
    EXPECT_EQ(buffer.view(), std::string_view("abc\0", 4));
    buffer.Truncate(2);
    buffer.Truncate(50);
    EXPECT_EQ(buffer.view(), "ab");

    // A failed growth leaves the contents and reports the sticky status.
    krnctlFailAllocation(1);
    EXPECT_EQ(buffer.Append(std::string(100, 'x')), kStatusFailure);
    EXPECT_EQ(buffer.status(), kStatusFailure);
    EXPECT_EQ(buffer.view(), "ab");
    EXPECT_EQ(buffer.Append("cd"), kStatusOk);
    EXPECT_EQ(buffer.view(), "abcd");
}

TEST(GrowBuffer, LargeBuffersAreAccountedAndMayBeRefused) {
    krnctlSetAccountCeiling(9'000'000);
    {
        GrowBuffer buffer;
        buffer.Init(0, 0);
        ASSERT_TRUE(buffer.Reserve(kAccountThreshold - 1));
        EXPECT_EQ(krnctlAccountedBytes(), 0);  // below the threshold nothing is registered
        ASSERT_TRUE(buffer.Reserve(kAccountThreshold));
        EXPECT_EQ(krnctlAccountedBytes(), static_cast<int64_t>(kAccountThreshold));
        ASSERT_TRUE(buffer.Reserve(8'500'000));  // only the difference is added
        EXPECT_EQ(krnctlAccountedBytes(), 8'500'000);

        // Past the ceiling: refused, the data let go, the account back where it was before the buffer.
        EXPECT_FALSE(buffer.Reserve(9'500'000));
        EXPECT_EQ(buffer.status(), kStatusFailure);
        EXPECT_EQ(buffer.data(), nullptr);
        EXPECT_EQ(buffer.capacity(), 0u);
        EXPECT_EQ(krnctlAccountedBytes(), 0);
        EXPECT_EQ(buffer.Append("x"), kStatusOk);  // a refusal is not the end of the buffer
    }
    {
        // Release and MoveInto both give the registered size back.
        GrowBuffer buffer;
        buffer.Init(kAccountThreshold, 0);
        EXPECT_EQ(krnctlAccountedBytes(), static_cast<int64_t>(kAccountThreshold));
        buffer.Release();
        EXPECT_EQ(krnctlAccountedBytes(), 0);
        buffer.Init(kAccountThreshold, 0);
        CountedString moved;
        buffer.MoveInto(moved);
        EXPECT_EQ(krnctlAccountedBytes(), 0);
        EXPECT_EQ(buffer.data(), nullptr);
    }
    EXPECT_EQ(krnctlAccountedBytes(), 0);
}

// A source that gives `good` bytes of 'x' and then fails the way a damaged store block does.
class FailingSource : public std::streambuf {
  public:
    explicit FailingSource(size_t good) : left_(good) {}

  protected:
    int_type underflow() override {
        if (left_ == 0) throw std::range_error("block sig mismatch");
        const size_t n = std::min(left_, sizeof piece_);
        std::fill(piece_, piece_ + n, 'x');
        left_ -= n;
        setg(piece_, piece_, piece_ + n);
        return traits_type::to_int_type(piece_[0]);
    }

  private:
    size_t left_;
    char piece_[1000];
};

TEST(GrowBuffer, AppendsAStreamWholeOrSaysWhyNot) {
    const std::string big(200'000, 'b');
    struct Case {
        const char* what;
        std::string data;
        uint64_t size;
        int32_t status;
        size_t length;  // bytes in the buffer afterwards, behind the 3 already there
    };
    const Case cases[] = {
        {"exactly the size", big, big.size(), kStatusOk, big.size()},
        {"less than there is", big, 1000, kStatusOk, 1000},
        {"nothing", big, 0, kStatusOk, 0},
        {"the stream ends first", big, big.size() + 1, kStatusShortRead, big.size()},
        {"an empty stream", "", 5, kStatusShortRead, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::istringstream in(c.data);
        GrowBuffer out;
        ASSERT_EQ(out.Append("abc"), kStatusOk);
        EXPECT_EQ(AppendFromStream(in, c.size, out), c.status);
        ASSERT_EQ(out.length(), 3 + c.length);
        EXPECT_EQ(out.view(), "abc" + c.data.substr(0, c.length));
        // Grown with what was read, whatever the size said.
        EXPECT_LE(out.capacity(), 2 * (3 + c.length) + 64 * 1024);
    }

    // A claim the buffer could never hold is refused before anything is read or reserved.
    std::istringstream in(big);
    GrowBuffer out;
    EXPECT_EQ(AppendFromStream(in, uint64_t{1} << 40, out), kStatusFailure);
    EXPECT_EQ(out.capacity(), 0u);

    // The source's own error leaves as itself, after what came before it, at the first byte or later.
    for (const size_t good : {size_t{0}, size_t{2500}}) {
        FailingSource source(good);
        std::istream failing(&source);
        GrowBuffer partial;
        try {
            AppendFromStream(failing, 10'000, partial);
            ADD_FAILURE() << "no error after " << good;
        } catch (const std::range_error& e) {
            EXPECT_STREQ(e.what(), "block sig mismatch");
        }
    }
}

TEST(CountedString, TakesOverABufferAndIsEditedInPlace) {
    GrowBuffer buffer;
    buffer.Init(0, 32);
    buffer.Append("Subject");
    buffer.Terminate();
    CountedString text;
    buffer.MoveInto(text);
    EXPECT_EQ(buffer.length(), 0u);
    EXPECT_EQ(buffer.data(), nullptr);
    EXPECT_EQ(text.size(), 8u);
    EXPECT_EQ(text.TextLength(), 7u);
    EXPECT_EQ(text.text(), "Subject");

    // Appending goes in front of the NUL and keeps one.
    ASSERT_EQ(AppendCounted(&text, ": hi", kUpToNul), kStatusOk);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(text.data()), text.size()),
              std::string("Subject: hi\0", 12));
    ASSERT_EQ(AppendCounted(&text, "!!!", 1), kStatusOk);
    EXPECT_EQ(text.text(), "Subject: hi!");
    EXPECT_EQ(text.size(), 13u);

    // Inserting inside, at the end and beyond it (the gap is zeros).
    ASSERT_EQ(InsertAt(&text, 0, "Re: ", 4), kStatusOk);
    EXPECT_EQ(text.text(), "Re: Subject: hi!");
    CountedString raw;
    ASSERT_EQ(InsertAt(&raw, 2, "ab", 2), kStatusOk);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(raw.data()), raw.size()), std::string("\0\0ab", 4));
    EXPECT_EQ(raw.TextLength(), 4u);
    // An unterminated string gets its NUL from AppendCounted.
    ASSERT_EQ(AppendCounted(&raw, "c", kUpToNul), kStatusOk);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(raw.data()), raw.size()),
              std::string("\0\0abc\0", 6));

    EXPECT_EQ(InsertAt(nullptr, 0, "x", 1), kStatusNullPointer);
    EXPECT_EQ(InsertAt(&raw, 0, nullptr, 1), kStatusNullPointer);
    EXPECT_EQ(AppendCounted(&raw, "x", -2), kStatusBadArgument);
    krnctlFailAllocation(1);
    EXPECT_EQ(InsertAt(&text, 3, "xyz", 3), kStatusFailure);
    EXPECT_EQ(text.text(), "Re: Subject: hi!");

    CountedString taken(std::move(text));
    EXPECT_EQ(text.data(), nullptr);
    EXPECT_EQ(taken.text(), "Re: Subject: hi!");
}

}  // namespace
}  // namespace tarn
