#include "ui/CreateTaskStep1.h"

#include <vector>

#include "platform/framework/LoadString.h"
#include "platform/os/Calendar.h"
#include "platform/view/ViewLayout.h"

namespace cirrovault {

CreateTaskStep1::CreateTaskStep1(std::shared_ptr<ViewBackend> backend)
    : backend_(backend ? std::move(backend) : ViewBackend::shared()),
      window_(backend_->createWindow(ViewLayout::CreateTaskStep1)) {
    // The titles double as their own keys so a translation can rename them; "Staturday"
    // is the table's spelling.
    std::vector<std::string> days;
    for (const char* day : {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Staturday"})
        days.push_back(LoadString::GetValueByKey(day, day));
    window_->setText(ViewOutlet::Title, LoadString::GetValueByKey("OBTitle", "Cirrovault Online Backup"));
    window_->setItems(ViewOutlet::DaysPopupButton, days);
    selectDayIndex(Calendar::weekday(Date::now()) - 1);
    setDaysPopupEnabled(false);
    selectTypeTag(DailyTag);
    setBackupDate(Date::now());
}

std::string CreateTaskStep1::taskNameField() const {
    return window_->text(ViewOutlet::TaskName);
}

void CreateTaskStep1::setTaskNameField(const std::string& text) {
    window_->setText(ViewOutlet::TaskName, text);
}

std::string CreateTaskStep1::descriptionField() const {
    return window_->text(ViewOutlet::TaskDescription);
}

void CreateTaskStep1::setDescriptionField(const std::string& text) {
    window_->setText(ViewOutlet::TaskDescription, text);
}

int CreateTaskStep1::selectedDayIndex() const {
    return static_cast<int>(window_->value(ViewOutlet::DaysPopupButton));
}

void CreateTaskStep1::selectDayIndex(int index) {
    if (index >= 0 && index < 7)
        window_->setValue(ViewOutlet::DaysPopupButton, index);
}

bool CreateTaskStep1::isDaysPopupEnabled() const {
    return window_->isEnabled(ViewOutlet::DaysPopupButton);
}

void CreateTaskStep1::setDaysPopupEnabled(bool enabled) {
    window_->setEnabled(ViewOutlet::DaysPopupButton, enabled);
}

int32_t CreateTaskStep1::selectedTypeTag() const {
    return static_cast<int32_t>(window_->value(ViewOutlet::BackupTypeMatrixRadio));
}

void CreateTaskStep1::selectTypeTag(int32_t tag) {
    window_->setValue(ViewOutlet::BackupTypeMatrixRadio, tag);
}

Date CreateTaskStep1::backupDate() const {
    return Date(window_->value(ViewOutlet::BackupDate));
}

void CreateTaskStep1::setBackupDate(Date date) {
    window_->setValue(ViewOutlet::BackupDate, date.timeIntervalSince1970());
}

} // namespace cirrovault
