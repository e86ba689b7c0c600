#include "dispatcher/jobqueue.h"

#include <gtest/gtest.h>

namespace {

auto const kAnything = [](std::string const &) { return true; };

std::string TakeName(JobQueue &jobs) {
  Job *const job = jobs.Take(kAnything);
  return job != nullptr ? job->name : "";
}

TEST(JobQueueTest, UrgentFirstThenInOrderOfArrival) {
  JobQueue jobs;
  jobs.Add("a", "M", 3, false);
  jobs.Add("b", "N", 1, false);
  jobs.Add("c", "M", 1, false);
  jobs.Add("b", "N", 1, false);  // told twice keeps its place
  EXPECT_EQ(TakeName(jobs), "b");
  EXPECT_EQ(TakeName(jobs), "c");
  EXPECT_EQ(TakeName(jobs), "a");
  EXPECT_EQ(TakeName(jobs), "");
}

TEST(JobQueueTest, BusyModuleDoesNotHoldUpOthers) {
  JobQueue jobs;
  jobs.Add("a", "Busy", 1, false);
  jobs.Add("b", "Free", 3, false);
  Job *const job = jobs.Take([](std::string const &function) { return function == "Free"; });
  ASSERT_NE(job, nullptr);
  EXPECT_EQ(job->name, "b");
  EXPECT_EQ(jobs.WaitingFor("Busy"), 1u);
}

TEST(JobQueueTest, NeverTwoRunsOfOneFileAndNoLostWord) {
  JobQueue jobs;
  jobs.Add("a", "M", 1, false);
  Job *const job = jobs.Take(kAnything);
  ASSERT_NE(job, nullptr);
  jobs.Add("a", "N", 2, false);  // handed on while it runs
  EXPECT_EQ(jobs.Take(kAnything), nullptr);
  EXPECT_TRUE(jobs.Finish(*job));
  Job *const second = jobs.Take(kAnything);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->function, "N");
  EXPECT_FALSE(jobs.Finish(*second));
  EXPECT_FALSE(jobs.Knows("a"));
}

TEST(JobQueueTest, DelayedJobWaitsForItsTimeOrAWord) {
  JobQueue jobs;
  auto const now = Clock::now();
  for (char const *name : {"a", "b"}) jobs.Add(name, "M", 1, false);
  Job *const a = jobs.Take(kAnything), *const b = jobs.Take(kAnything);
  jobs.Delay(*a, now + std::chrono::seconds(10));
  jobs.Delay(*b, now + std::chrono::seconds(20));
  EXPECT_EQ(jobs.NextDue(), now + std::chrono::seconds(10));
  jobs.WakeDue(now + std::chrono::seconds(10));
  EXPECT_EQ(TakeName(jobs), "a");
  EXPECT_EQ(TakeName(jobs), "");
  jobs.Add("b", "M", 1, false);
  EXPECT_EQ(TakeName(jobs), "b");
  EXPECT_EQ(jobs.NextDue(), Clock::time_point::max());
}

}  // namespace
