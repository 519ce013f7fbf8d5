// Runs every test under a check that no object outlives it.
#include <gtest/gtest.h>

#include "platform/com/Unknown.h"

namespace {

class LeakCheck : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override { m_before = CUnknown::ObjectsActive(); }
    void OnTestEnd(const testing::TestInfo& info) override {
        EXPECT_EQ(CUnknown::ObjectsActive(), m_before) << "objects left alive by " << info.name();
    }

    int32_t m_before = 0;
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new LeakCheck);
    return RUN_ALL_TESTS();
}
