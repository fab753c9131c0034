// The main of every test binary. After each test the kernel stand-in must hold nothing: no allocation,
// registered object, open handle or undeleted temporary file. Tests that leave something behind on
// purpose must clean it up themselves before they end.
#include <gtest/gtest.h>

#include <string>

#include "kernel/tarnkrn_control.h"

namespace {

class KernelLeakCheck : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override { krnctlReset(); }

    void OnTestEnd(const testing::TestInfo& info) override {
        size_t length = krnctlLeakReport(nullptr, 0);
        if (length != 0) {
            std::string report(length + 1, '\0');
            krnctlLeakReport(report.data(), report.size());
            report.resize(length);
            ADD_FAILURE() << "kernel leak report after " << info.test_suite_name() << "." << info.name()
                          << " is not empty:\n"
                          << report;
        }
        krnctlReset();
    }
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new KernelLeakCheck);
    return RUN_ALL_TESTS();
}
