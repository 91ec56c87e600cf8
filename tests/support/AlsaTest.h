#pragma once

#include "AlsaFaults.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace quiltest {

/// A test of code that calls ALSA: no armed failure or hook at its start, no
/// PCM or mixer handle left open at its end, the library's ERROR lines in m_log.
class AlsaTest : public ::testing::Test
{
protected:
    void SetUp() override { faults::reset(); }
    void TearDown() override
    {
        faults::reset();
        EXPECT_EQ(faults::openHandles(), 0) << "a PCM or mixer handle leaked";
    }
    /// Opens `device` with `function` failing once with `result`, after `after`
    /// calls passed: open() must fail, leave no handle and log one ERROR line,
    /// which errorString() repeats with errorCode(); the next open() succeeds
    /// and clears them.
    template <class Device>
    void expectOpenFailsCleanlyAt(Device& device, const char* function, int after = 0, int result = -EINVAL)
    {
        SCOPED_TRACE(function);
        m_log.clear();
        faults::arm(function, result, 1, after);
        EXPECT_FALSE(device.open());
        EXPECT_EQ(faults::openHandles(), 0);
        ASSERT_EQ(m_log.errors().size(), 1);
        EXPECT_EQ(std::make_pair(device.errorString(), device.errorCode()), std::make_pair(m_log.errors().value(0), result));
        EXPECT_TRUE(device.open());
        EXPECT_EQ(device.errorString(), QString());
    }
    LogCapture m_log;
};

} // namespace quiltest
