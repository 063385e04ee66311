#pragma once

#include <cstdint>
#include <string>

namespace cirrovault {

// Result codes of the service layer, passed up to the engine unchanged.
// Texts for the user: TransferApiUtil::stringWithReturnCode.
namespace ResultCode {
inline constexpr int64_t Success = 0;
inline constexpr int64_t NotLoggedOn = 1;      // not logged on, or the session expired
inline constexpr int64_t EmptyName = 2;        // a name that may not be empty was empty
inline constexpr int64_t Failure = 3;          // ordinary failure; the engine may retry
inline constexpr int64_t OldTaskNotFound = 4;  // task list: the task to edit does not exist
inline constexpr int64_t StorageError = 5;     // task list: the store could not be updated
inline constexpr int64_t Cancelled = 6;
inline constexpr int64_t TaskExists = 6;      // task list only: the same task exists already
inline constexpr int64_t AlreadyExists = 7;    // the target path exists already
inline constexpr int64_t NotFound = 8;         // no such path on the service
inline constexpr int64_t WrongPassword = 9;    // logon refused
inline constexpr int64_t SpaceLimit = 10;      // the account's quota is used up
inline constexpr int64_t BadPath = 11;         // path leaves the account's root, or is malformed
inline constexpr int64_t BadRequest = 12;      // a request text the service cannot read
inline constexpr int64_t LocalFileError = 13;  // the local file cannot be read or written
inline constexpr int64_t WrongPassPhrase = 14; // an encrypted file does not open with this key
inline constexpr int64_t DamagedFile = 15;     // a stored file failed its integrity check
inline constexpr int64_t Conflict = 16;        // a concurrent change won; read again and retry
inline constexpr int64_t NoService = 17;       // no store configured or reachable
inline constexpr int64_t MailFailed = 18;      // the report could not be sent nor kept
inline constexpr int64_t BadCertificate = 19;  // the server's certificate did not verify
inline constexpr int64_t Forbidden = 20;       // the service does not let this account change it
inline constexpr int64_t Done = 24;            // an upload that had nothing left to send
inline constexpr int64_t StoreDamaged = 31;    // the store's records are damaged or were replaced
inline constexpr int64_t SubItemLimit = 73;    // a folder holds too many items
} // namespace ResultCode

} // namespace cirrovault
