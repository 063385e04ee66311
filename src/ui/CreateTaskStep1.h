#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/os/Date.h"
#include "platform/view/ViewBackend.h"

namespace cirrovault {

// The fields of the wizard's first step, kept in a "CreateTaskStep1" window: the task's
// name and description, the weekday list (daysPopupButton), the schedule-type radio
// buttons (backupTypeMatrixRadio, tags 1 daily, 2 weekly, 3 once in a date range), the
// time picker (backupDate) and the first run computed from them (schTime).
class CreateTaskStep1 {
public:
    static constexpr int32_t DailyTag = 1;
    static constexpr int32_t WeeklyTag = 2;
    static constexpr int32_t DateRangeTag = 3;

    // Loads the layout on the back end (the shared one when null): daily, the weekday
    // list disabled and showing today's weekday.
    explicit CreateTaskStep1(std::shared_ptr<ViewBackend> backend = nullptr);
    CreateTaskStep1(const CreateTaskStep1&) = delete;
    CreateTaskStep1& operator=(const CreateTaskStep1&) = delete;

    std::string taskNameField() const;
    void setTaskNameField(const std::string& text);
    std::string descriptionField() const;
    void setDescriptionField(const std::string& text);

    // The weekday list: index 0 Sunday to 6 Saturday.
    int selectedDayIndex() const;
    void selectDayIndex(int index);
    bool isDaysPopupEnabled() const;
    void setDaysPopupEnabled(bool enabled);

    int32_t selectedTypeTag() const;
    // Selects the radio button only; the controller's action reacts to a press.
    void selectTypeTag(int32_t tag);

    Date backupDate() const;
    void setBackupDate(Date date);

    Date schTime; // the first run as last computed

    const std::shared_ptr<ViewWindow>& window() const { return window_; }
    const std::shared_ptr<ViewBackend>& backend() const { return backend_; }

private:
    std::shared_ptr<ViewBackend> backend_;
    std::shared_ptr<ViewWindow> window_;
};

} // namespace cirrovault
