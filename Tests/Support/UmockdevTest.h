// A umockdev testbed for tests that must run under umockdev-wrapper (which preloads the library
// that redirects /sys, /dev and udev to the testbed); they are skipped when run without it.
#pragma once

#include <glib-object.h>
#include <gtest/gtest.h>
#include <umockdev.h>

#include <cstdlib>
#include <cstring>

#include "IOKit/UdevFeeder.h"

class UmockdevTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // The preload library only redirects once a testbed exists, so ask the environment first.
        const char* preload = std::getenv("LD_PRELOAD");
        if (preload == nullptr || std::strstr(preload, "libumockdev-preload") == nullptr) {
            GTEST_SKIP() << "run under umockdev-wrapper";
        }
        testbed_ = umockdev_testbed_new();
        ASSERT_TRUE(umockdev_in_mock_environment());
        // The testbed sends the monitor its events itself: there is no daemon to ask.
        qv::UdevFeeder::setUdevRunningCheck([] { return true; });
    }
    void TearDown() override {
        qv::UdevFeeder::setUdevRunningCheck({});
        if (testbed_ != nullptr) {
            g_object_unref(testbed_);
            testbed_ = nullptr;
        }
    }
    // Whether SetUp gave a usable testbed (false: skipped, or failed).
    bool testbedReady() const { return testbed_ != nullptr && !HasFatalFailure(); }

    UMockdevTestbed* testbed_ = nullptr;
};
