// The hardware store reports with printf: its tests compare what a call printed.
#pragma once
#include "qmt_hconf.h"
#include <gtest/gtest.h>
#include <string>

template <class Fn> std::string stdout_of(Fn fn) {
    fflush(stdout);
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}
