// A test that runs once more in a process of its own: to be killed there, or to be the first to ask the system for
// something.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/run_program.h"

namespace lumbra::test {

// Runs the test that calls it once more, in a process of its own that is told how. What it leaves goes to the folder.
inline Program RunAgain(const std::filesystem::path& Folder, const std::string& How) {
  const auto* const pTest = ::testing::UnitTest::GetInstance()->current_test_info();
  const std::string Name = std::string(pTest->test_suite_name()) + '.' + pTest->name();
  return Program(Folder, {LUMBRA_TESTS, "--gtest_filter=" + Name},
                 {{"LUMBRA_RUN_AGAIN", How}, {"TMPDIR", Folder.string()}, {"TMP", Folder.string()}});
}

// How this process was run again; empty where it is the first.
inline std::string HowRunAgain() {
  const char* const pHow = std::getenv("LUMBRA_RUN_AGAIN");
  return pHow == nullptr ? "" : pHow;
}

}  // namespace lumbra::test
