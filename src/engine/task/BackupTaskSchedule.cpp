#include <cmath>
#include <exception>

#include "engine/task/CBackupTask.h"
#include "platform/os/Calendar.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {

constexpr double kDay = 86'400.0;
constexpr double kWeek = 604'800.0;

// The date of the given calendar day (days may roll over the month's end) at the time
// of day of timeOf, in whole seconds.
Date dayAtTimeOf(const DateComponents& day, int dayOffset, Date timeOf) {
    DateComponents time = Calendar::components(timeOf);
    DateComponents built;
    built.year = day.year;
    built.month = day.month;
    built.day = day.day + dayOffset;
    built.hour = time.hour;
    built.minute = time.minute;
    built.second = std::floor(time.second);
    return Calendar::dateFromComponents(built);
}

} // namespace

void CBackupTask::SetSchDating(Date date, bool bAdjustTime) {
    try {
        mDating = date;
        if (bAdjustTime)
            AdjuestDating(false);
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::SetSchDating()");
    }
}

void CBackupTask::SetBeginDate(Date date) {
    try {
        mBeginDate = date;
        if ((taskType & ScheduleKindMask) != ScheduleNone)
            AdjuestDating(true);
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::SetBeginDate()");
    }
}

void CBackupTask::AdjuestDating(bool fromBeginDate) {
    try {
        Date now = Date::now();
        DateComponents today = Calendar::components(now);
        // Only the whole seconds go: the fraction keeps nowMin just after the minute's
        // start, so a slot at the very start of this minute counts as passed.
        Date nowMin = now.addingTimeInterval(-std::floor(today.second));
        Date base = nowMin < mBeginDate ? mBeginDate : nowMin;
        Date candidate = dayAtTimeOf(today, 0, mDating);

        int32_t kind = taskType & ScheduleKindMask;
        if (kind == ScheduleWeekly) {
            int days = (Calendar::weekday(mDating) + 7 - Calendar::weekday(candidate)) % 7;
            mDating = candidate.addingTimeInterval(days * kDay);
            if (mDating >= base)
                return;
            // A week after today's weekday, not after the adjusted day.
            mDating = candidate.addingTimeInterval(kWeek);
            return;
        }
        if (kind == ScheduleBetweenDates && !fromBeginDate && mBackupDate >= mBeginDate &&
            mBackupDate <= mEndDate && mBackupDate >= mDating)
            return; // the range's one run has already happened
        mDating = candidate >= base ? candidate : candidate.addingTimeInterval(kDay);
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::AdjuestDating()");
    }
}

void CBackupTask::SetNextDating() {
    try {
        int32_t kind = taskType & ScheduleKindMask;
        double period;
        int catchUpDays;
        if (kind == ScheduleDaily || kind == ScheduleBetweenDates) {
            period = kDay;
            catchUpDays = 1;
        } else if (kind == ScheduleWeekly) {
            period = kWeek;
            catchUpDays = 7;
        } else {
            return;
        }
        Date now = Date::now();
        Date next = mDating.addingTimeInterval(period);
        // Missed slots are never run one by one: after a long pause the next run is
        // the next slot counted from today.
        if (now > next)
            mDating = dayAtTimeOf(Calendar::components(now), catchUpDays, mDating);
        else
            mDating = next;
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::SetNextDating()");
    }
}

} // namespace cirrovault
