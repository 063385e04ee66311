#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/manager/CBackupManage.h"
#include "platform/os/Date.h"
#include "platform/view/ViewBackend.h"
#include "ui/CreateTaskStep1.h"
#include "ui/CreateViewXibControllerDelegate.h"
#include "ui/FilePathTableViewController.h"

namespace cirrovault {

// Drives the first step of the new-task wizard: proposes a name and a time, checks what
// the user entered (name, description, ticked folders, a name not yet used on the
// service) and hands the result to its own task manager before the host moves on. It
// also passes the host's task operations through to that manager. Main thread only.
class CreateViewXibController {
public:
    // Makes its manager, the step's window and the browser on the back end (the shared
    // one when null).
    explicit CreateViewXibController(std::shared_ptr<ViewBackend> backend = nullptr);
    CreateViewXibController(const CreateViewXibController&) = delete;
    CreateViewXibController& operator=(const CreateViewXibController&) = delete;

    void setDelegate(CreateViewXibControllerDelegate* receiver) { delegate = receiver; }

    // Starts a new task in the manager (dropping an unfinished one) and fills the name,
    // description and time with its proposals. False when the manager cannot start one.
    bool createTaskName();
    void nextButton();
    void backButton();
    // -1 the service's task names could not be read (the user was told), 1 the name is
    // taken by a task of the account (any computer), 0 free. Exact comparison.
    int IsCreateTaskValid(const std::string& name);

    // ---- The step's values ----
    std::string getStep1TaskName() const;
    std::string getStep1TaskDescription() const;
    void setSetp1TaskName(const std::string& name);
    void setStep1Description(const std::string& description);
    int32_t getStep1BackupType() const; // the radio tag: 1, 2 or 3
    // Days from today to the weekday chosen in the list (0 = today).
    int32_t getStep1SelectBackupDay() const;
    // The first run proposed to the manager; also kept as the step's schTime.
    Date getStep1Dating();
    void initBackupDate();
    // The radio action: only the weekly type (2) uses the weekday list.
    void setBackupTypeMode(int32_t tag);

    // ---- The host's task operations, through this controller's manager ----
    int64_t logon(const std::string& userName, const std::string& userPassword);
    void signup(const std::string& userName, const std::string& userPassword,
                const std::string& emailAddress);
    std::vector<CBackupManage::TaskPtr> getTaskList();
    bool refreshTaskList();
    CBackupManage::TaskPtr getTaskByName(const std::string& name);
    bool StartBackupByUser(const std::string& taskName, bool bByChangeEvent);
    bool deleteTask(const std::string& taskName, bool bDeleteServerFile);
    void pauseUpload(const std::string& taskName, bool bPause);

    std::unique_ptr<CBackupManage> pBackupManage;
    std::unique_ptr<CreateTaskStep1> pStep1View;
    std::unique_ptr<FilePathTableViewController> pFilePathView;
    std::string taskName;             // the name handed to the manager by the last Next
    int32_t nTaskStep1ButtonType = 0; // 1 after Next, 0 after Back
    CreateViewXibControllerDelegate* delegate = nullptr; // the host's; not owned

private:
    // Shows the text of a string-table key; the step's checks stop after it.
    static void showMessage(const char* key);
};

} // namespace cirrovault
