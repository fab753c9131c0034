// The kernel memory holders: what they construct they destroy, once each; what they register they
// unregister; and the kernel's tracker charges their memory to the caller's line, not to the header.
#include "common/kernel_memory.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "kernel/tarnkrn_control.h"

namespace tarn {
namespace {

// Counts its own lives, and holds a value that must survive a move of the array that holds it.
struct Tracked {
    static inline int alive = 0;
    static inline int destroyed = 0;
    int value = 7;
    Tracked() noexcept { ++alive; }
    ~Tracked() {
        --alive;
        ++destroyed;
    }
};

std::string LeakReport() {
    std::string report(krnctlLeakReport(nullptr, 0) + 1, '\0');
    krnctlLeakReport(report.data(), report.size());
    report.resize(report.size() - 1);
    return report;
}

// "FILE:LINE" as the kernel reports a site of this file.
std::string Site(int line) { return std::string(__FILE__) + ":" + std::to_string(line); }

TEST(KernelArray, ConstructsRegistersAndDestroysEachElementOnce) {
    Tracked::alive = Tracked::destroyed = 0;
    {
        KernelArray<Tracked> array;
        const int line = __LINE__ + 1;
        ASSERT_TRUE(array.allocate(5));
        EXPECT_EQ(Tracked::alive, 5);
        EXPECT_EQ(array[4].value, 7);
        const std::string report = LeakReport();
        EXPECT_NE(report.find("object of kind 5 registered at " + Site(line)), std::string::npos) << report;
        EXPECT_NE(report.find("at " + Site(line)), std::string::npos) << report;

        array.shrink(3);  // the tail goes at once, the rest stays
        EXPECT_EQ(Tracked::alive, 3);
        array.shrink(4);  // never grows back
        EXPECT_EQ(array.size(), 3u);

        KernelArray<Tracked> moved(std::move(array));
        EXPECT_TRUE(array.empty());
        EXPECT_EQ(moved.size(), 3u);
        EXPECT_EQ(moved[2].value, 7);
        KernelArray<Tracked> assigned;
        ASSERT_TRUE(assigned.allocate(2));
        assigned = std::move(moved);  // the two it held go first
        EXPECT_EQ(Tracked::alive, 3);

        ASSERT_TRUE(assigned.allocate(0));  // a new size replaces the old contents; 0 holds nothing
        EXPECT_TRUE(assigned.empty());
        EXPECT_EQ(Tracked::alive, 0);
    }
    EXPECT_EQ(Tracked::alive, 0);
    EXPECT_EQ(Tracked::destroyed, 7);
    EXPECT_EQ(LeakReport(), "");

    // Memory refused: nothing constructed, nothing held, and a later allocation works as usual.
    KernelArray<Tracked> refused;
    krnctlFailAllocation(1);
    EXPECT_FALSE(refused.allocate(3));
    EXPECT_TRUE(refused.empty());
    EXPECT_EQ(Tracked::alive, 0);
    KernelArray<uint32_t> plain;
    ASSERT_TRUE(plain.allocate(4));
    for (uint32_t v : plain.span()) EXPECT_EQ(v, 0u);
}

TEST(KernelPtr, MakesRegistersAndReleasesOneObject) {
    Tracked::alive = Tracked::destroyed = 0;
    {
        const int line = __LINE__ + 1;
        KernelPtr<Tracked> single = MakeKernelObject<Tracked>(KernelRegistry::kSingle);
        ASSERT_NE(single, nullptr);
        EXPECT_EQ(single->value, 7);
        KernelPtr<Tracked> unregistered = MakeKernelObject<Tracked>(KernelRegistry::kNone);
        ASSERT_NE(unregistered, nullptr);
        EXPECT_EQ(Tracked::alive, 2);
        const std::string report = LeakReport();
        EXPECT_NE(report.find("object of kind 4 registered at " + Site(line)), std::string::npos) << report;
        EXPECT_EQ(report.find("object of kind 4 registered at " + Site(line + 3)), std::string::npos)
            << report;

        // Let go (as to the toolkit's slot) and taken back: the object lives on in between.
        Tracked* raw = single.release();
        EXPECT_EQ(Tracked::alive, 2);
        KernelPtr<Tracked> adopted = AdoptKernelObject(raw, KernelRegistry::kSingle);
        EXPECT_EQ(adopted.get(), raw);
    }
    EXPECT_EQ(Tracked::alive, 0);
    EXPECT_EQ(Tracked::destroyed, 2);

    krnctlFailAllocation(1);
    EXPECT_EQ(MakeKernelObject<Tracked>(KernelRegistry::kSingle), nullptr);
    EXPECT_EQ(Tracked::alive, 0);
    EXPECT_EQ(LeakReport(), "");
}

}  // namespace
}  // namespace tarn
