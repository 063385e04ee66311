#include <gtest/gtest.h>

#include <ctime>

#include "common/LocalDate.h"
#include "common/ScopedEnv.h"
#include "engine/task/CBackupTask.h"
#include "platform/os/Calendar.h"
#include "platform/os/Clock.h"

using namespace cirrovault;

namespace {

// In a zone with summer time (from 2026-03-29); 2026-03-11 is a Wednesday.
using test::localDate;

class BackupTaskSchedule : public ::testing::Test {
protected:
    void SetUp() override {
        tzset();
        clock_ = std::make_shared<ManualClock>(localDate(2026, 3, 11, 9, 30));
        Clock::setShared(clock_);
        task_ = std::make_shared<CBackupTask>();
        task_->mBeginDate = localDate(2026, 1, 1, 0, 0);
    }
    void TearDown() override { Clock::setShared(nullptr); }
    void now(Date date) { clock_->set(date); }

    struct ZoneReread {
        ~ZoneReread() { tzset(); }
    } zoneReread_; // once the zone below is put back
    test::ScopedEnv zone_{"TZ", "Europe/Berlin"};
    std::shared_ptr<ManualClock> clock_;
    std::shared_ptr<CBackupTask> task_;
};

TEST_F(BackupTaskSchedule, SetTimeAndBeginDateByKind) {
    task_->taskType = CBackupTask::ScheduleDaily | 0x30; // flag bits must not matter
    auto next = [&](Date chosen, bool adjust = true) {
        task_->SetSchDating(chosen, adjust);
        return task_->mDating;
    };
    // Only the time of day counts.
    EXPECT_EQ(next(localDate(2025, 6, 2, 8, 0)), localDate(2026, 3, 12, 8, 0));
    EXPECT_EQ(next(localDate(2025, 6, 2, 10, 15, 7)), localDate(2026, 3, 11, 10, 15, 7));
    // A slot at the start of this minute has passed, and the next minute has not.
    now(localDate(2026, 3, 11, 8, 0, 40.5));
    EXPECT_EQ(next(localDate(2026, 3, 11, 8, 0)), localDate(2026, 3, 12, 8, 0));
    EXPECT_EQ(next(localDate(2026, 3, 11, 8, 1)), localDate(2026, 3, 11, 8, 1));
    // Without adjustment the date is taken as given.
    EXPECT_EQ(next(localDate(2020, 1, 1, 8, 0), false), localDate(2020, 1, 1, 8, 0));

    // Weekly counts weekdays from today.
    now(localDate(2026, 3, 11, 9, 30));
    task_->taskType = CBackupTask::ScheduleWeekly;
    // Monday chosen on a Wednesday; today's weekday later today; today's passed weekday.
    using P = std::pair<Date, Date>;
    for (auto [chosen, next] : {P{localDate(2026, 3, 9, 10, 0), localDate(2026, 3, 16, 10, 0)},
                                P{localDate(2026, 3, 4, 11, 0), localDate(2026, 3, 11, 11, 0)},
                                P{localDate(2026, 3, 4, 8, 0), localDate(2026, 3, 18, 8, 0)}}) {
        task_->SetSchDating(chosen, true);
        EXPECT_EQ(task_->mDating, next);
    }
    // Begin date on Friday, weekday Thursday: the Thursday lies before the begin date,
    // so the task goes to today's weekday a week on.
    task_->mDating = localDate(2026, 3, 5, 8, 0);
    task_->SetBeginDate(localDate(2026, 3, 13, 12, 0));
    EXPECT_EQ(task_->mDating, localDate(2026, 3, 18, 8, 0));

    // A begin date ten days ahead moves a daily task one day on only.
    now(localDate(2026, 3, 11, 7, 0));
    task_->taskType = CBackupTask::ScheduleDaily;
    task_->mDating = localDate(2026, 3, 11, 8, 0);
    task_->SetBeginDate(localDate(2026, 3, 21, 7, 0));
    EXPECT_EQ(task_->mDating, localDate(2026, 3, 12, 8, 0));

    // No schedule: a new begin date leaves the next run alone.
    task_->taskType = CBackupTask::ScheduleNone;
    task_->mDating = localDate(2026, 3, 1, 8, 0);
    task_->SetBeginDate(localDate(2026, 1, 1, 0, 0));
    EXPECT_EQ(task_->mDating, localDate(2026, 3, 1, 8, 0));

    // The range's one run happened after the slot: setting the time keeps it, a new
    // begin date recomputes it.
    task_->taskType = CBackupTask::ScheduleBetweenDates;
    task_->mEndDate = localDate(2026, 4, 1, 0, 0);
    task_->mBackupDate = localDate(2026, 3, 10, 8, 30);
    task_->SetSchDating(localDate(2026, 3, 10, 8, 0), true);
    EXPECT_EQ(task_->mDating, localDate(2026, 3, 10, 8, 0));
    task_->SetBeginDate(localDate(2026, 1, 1, 0, 0));
    EXPECT_EQ(task_->mDating, localDate(2026, 3, 11, 8, 0));
    // A success outside the range does not count.
    task_->mEndDate = localDate(2026, 3, 10, 0, 0);
    task_->SetSchDating(localDate(2026, 3, 10, 8, 0), true);
    EXPECT_EQ(task_->mDating, localDate(2026, 3, 11, 8, 0));
}

TEST_F(BackupTaskSchedule, NextDatingStepsOneWholePeriodOrCatchesUpFromToday) {
    const Date dstEve = localDate(2026, 3, 28, 8, 0);
    struct Case {
        const char* what;
        int32_t type;
        Date dating, now, next;
    };
    const Case cases[] = {
        // Within a day of the slot: exactly 86400 s on, even into summer time.
        {"within a day", CBackupTask::ScheduleDaily, dstEve, dstEve.addingTimeInterval(86'400),
         localDate(2026, 3, 29, 9, 0)},
        // A missed day or more: tomorrow at the slot's calendar time; day 32 rolls over.
        {"missed days", CBackupTask::ScheduleDaily, localDate(2026, 1, 28, 8, 0),
         localDate(2026, 1, 31, 10, 0), localDate(2026, 2, 1, 8, 0)},
        {"just past the next slot", CBackupTask::ScheduleDaily, localDate(2026, 3, 26, 8, 0),
         localDate(2026, 3, 27, 8, 0, 0.5), localDate(2026, 3, 28, 8, 0)},
        {"between dates", CBackupTask::ScheduleBetweenDates, localDate(2026, 3, 26, 8, 0),
         localDate(2026, 3, 29, 10, 0), localDate(2026, 3, 30, 8, 0)},
        // Weekly: one week on, or after a pause a week from today (today's weekday wins).
        {"weekly", CBackupTask::ScheduleWeekly, localDate(2026, 3, 9, 8, 0),
         localDate(2026, 3, 11, 9, 0), localDate(2026, 3, 16, 8, 0)},
        {"weekly after a pause", CBackupTask::ScheduleWeekly, localDate(2026, 3, 2, 8, 0),
         localDate(2026, 3, 12, 9, 0), localDate(2026, 3, 19, 8, 0)},
        {"none", CBackupTask::ScheduleNone, localDate(2026, 1, 1, 8, 0),
         localDate(2026, 3, 12, 9, 0), localDate(2026, 1, 1, 8, 0)},
    };
    for (const auto& c : cases) {
        task_->taskType = c.type;
        task_->mDating = c.dating;
        now(c.now);
        task_->SetNextDating();
        EXPECT_EQ(task_->mDating, c.next) << c.what;
    }
}

} // namespace
