// NpTest::endsWithoutHanging turns a hang into a failure: the tests of locks, waits and FIFOs
// run the part that could hang through it. It never times work: the bound is generous, there
// only so that a fault ends the test instead of the whole run. Any thread.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>

namespace NpTest {

// Runs `action` and returns once it has; fails the test and ends the process at once when it has
// not returned after 30 s (its thread could not be joined). Rethrows what the action threw.
template <typename Action>
void endsWithoutHanging(Action action) {
  auto done = std::async(std::launch::async, action);  // kept: a future's end waits for its task
  if (done.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
    ADD_FAILURE() << "did not end within 30 s";
    std::_Exit(EXIT_FAILURE);
  }
  done.get();
}

}  // namespace NpTest
