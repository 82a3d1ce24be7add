// The table of all return codes. The rule: an entry for each code of return_codes.h, in its order; SQLCODEs are part of
// what callers test for and are never changed or used again.
#include "platform/admin/return_code_table.h"

#include <algorithm>
#include <array>

#include "zonmdfile/platform/return_codes.h"

namespace zon {

namespace {

// SQLSTATE classes: 02 no data, 08 outcome of a change unknown, 0A not supported, 22 bad data, 23 constraint, 24 scan
// state, 25 read-only or state of a batch, 42 wrong object or no right to it, 54 limit of the system, 57 resource not
// available, 58 system error.
constexpr std::array RETURN_CODES{
    ReturnCode{MD_RC_OK, "MD_RC_OK", 0, "00000", "Success. Nothing needs to be done."},

    ReturnCode{
        MD_RC_NO_DATA, "MD_RC_NO_DATA", -22301, "02000",
        "There is nothing to return: a field of the record found is empty, or the store could not be created for want "
        "of memory. If the record should hold a value, store it with an update."},
    ReturnCode{
        MD_RC_TOKEN_MISSING, "MD_RC_TOKEN_MISSING", -22302, "22023",
        "A text could not be split into fields, because the text or the separator is empty. Check that the stored "
        "text holds all its fields and does not end with the separator."},
    ReturnCode{MD_RC_KEY_TOO_LONG, "MD_RC_KEY_TOO_LONG", -22303, "22001",
               "A key is longer than 128 bytes. Use a shorter key."},
    ReturnCode{MD_RC_KEY_EMPTY, "MD_RC_KEY_EMPTY", -22304, "23502", "A key is empty. Give a key of 1 to 128 bytes."},
    ReturnCode{MD_RC_DATA_TOO_LONG, "MD_RC_DATA_TOO_LONG", -22305, "22001",
               "The data is longer than 1,024,000 bytes, or the version does not fit into its field. Shorten it."},
    ReturnCode{MD_RC_DATA_EMPTY, "MD_RC_DATA_EMPTY", -22306, "23502", "The data is empty. Give at least one byte."},
    ReturnCode{MD_RC_LIST_TOO_LONG, "MD_RC_LIST_TOO_LONG", -22307, "54000",
               "A list would be longer than the 4,294,967,294 bytes that can be handed out. List the keys alone or one "
               "group at a time, and retrieve the records one by one."},

    ReturnCode{GENREG_RC_END_OF_SCAN, "GENREG_RC_END_OF_SCAN", -22310, "02000",
               "The scan has delivered its last record. Close it, or open a new one to read again."},
    ReturnCode{
        GENREG_RC_MEMBER_ABSENT, "GENREG_RC_MEMBER_ABSENT", -22311, "02000",
        "The member is in no group. Nothing needs to be done if it was to be removed; else check its name and kind."},
    ReturnCode{GENREG_RC_DUPLICATE_KEY, "GENREG_RC_DUPLICATE_KEY", -22312, "23505",
               "A record with these keys exists already. Update it, or choose another key."},
    ReturnCode{GENREG_RC_NOT_FOUND, "GENREG_RC_NOT_FOUND", -22313, "02000",
               "No record matches. Check the keys and that the metadata directory is the right one."},
    ReturnCode{GENREG_RC_NO_CHANGE, "GENREG_RC_NO_CHANGE", -22314, "02000",
               "The record holds these very values already and was left as it is. Nothing needs to be done."},

    ReturnCode{GENREG_RC_LOCK_TIMEOUT, "GENREG_RC_LOCK_TIMEOUT", -22320, "57033",
               "Another process kept the record file locked for longer than the lock wait; nothing was changed. Try "
               "again. If it happens again, find the process that has the lock with lslocks, or in /proc/locks by the "
               "inodes of the record file and its lock file, and see whether it is stopped or hangs."},
    ReturnCode{
        GENREG_RC_DAMAGED, "GENREG_RC_DAMAGED", -22321, "58004",
        "Part of the record file that is needed for the answer is damaged. Keep a copy of the file, then let a change "
        "repair it or restore the backup, and check the disk."},
    ReturnCode{
        GENREG_RC_NEWER_FORMAT, "GENREG_RC_NEWER_FORMAT", -22322, "0A000",
        "The record file was written by a later release and was left untouched. Use that release, or a later one."},
    ReturnCode{
        GENREG_RC_NOT_RECORD_FILE, "GENREG_RC_NOT_RECORD_FILE", -22323, "42809",
        "The file under this name is not a record file and was left untouched. Move it away, or correct the metadata "
        "directory."},
    ReturnCode{
        GENREG_RC_WRONG_RECORD_TYPE, "GENREG_RC_WRONG_RECORD_TYPE", -22324, "42809",
        "The record file is of another store or holds records of another type, and was left untouched. Put the right "
        "file in place, or correct the metadata directory."},
    ReturnCode{GENREG_RC_NO_SPACE, "GENREG_RC_NO_SPACE", -22325, "57011",
               "The disk or the quota is full; nothing was changed. Free some space and try again."},
    ReturnCode{
        GENREG_RC_NO_PERMISSION, "GENREG_RC_NO_PERMISSION", -22326, "42501",
        "The process may not do this to the record file or its directory. Correct owner or mode of the file, its "
        "companions and the directory, or run as another user."},
    ReturnCode{
        GENREG_RC_READ_ONLY, "GENREG_RC_READ_ONLY", -22327, "25006",
        "The record file lies on a read-only file system. Mount it writable, or set another metadata directory."},
    ReturnCode{
        GENREG_RC_IO_ERROR, "GENREG_RC_IO_ERROR", -22328, "58030",
        "The device reported an error while the record file was read or written. Check the disk and the system log."},
    ReturnCode{GENREG_RC_NO_MEMORY, "GENREG_RC_NO_MEMORY", -22329, "57011",
               "There is not enough memory for the call. Free memory or raise the process's limit, then try again."},
    ReturnCode{
        GENREG_RC_TOO_MANY_FILES, "GENREG_RC_TOO_MANY_FILES", -22330, "57011",
        "The process or the system has no file descriptor left. Close files or raise the limit, then try again."},
    ReturnCode{
        GENREG_RC_FILE_TOO_LARGE, "GENREG_RC_FILE_TOO_LARGE", -22331, "54000",
        "The record file would become larger than the process or the file system allows. Raise the limit, or delete "
        "records that are no longer needed."},
    ReturnCode{GENREG_RC_NOT_REGULAR, "GENREG_RC_NOT_REGULAR", -22332, "42809",
               "Something that is no regular file (a link, directory, pipe or device) stands at the name of the record "
               "file or a companion. Remove it and find out who put it there."},
    ReturnCode{GENREG_RC_NO_DIRECTORY, "GENREG_RC_NO_DIRECTORY", -22333, "42704",
               "The metadata directory does not exist. Create it, or set another one."},
    ReturnCode{GENREG_RC_NAME_TOO_LONG, "GENREG_RC_NAME_TOO_LONG", -22334, "42622",
               "The path of the record file is longer than the system allows. Choose a metadata directory with a "
               "shorter path."},
    ReturnCode{GENREG_RC_NO_SCAN, "GENREG_RC_NO_SCAN", -22335, "24501",
               "No scan is open on this object. Open one before reading from it or closing it."},
    ReturnCode{GENREG_RC_BAD_RECORD, "GENREG_RC_BAD_RECORD", -22336, "22000",
               "The record was refused by the checks of its record type. Correct its lengths and fields."},
    ReturnCode{GENREG_RC_DURABILITY_UNKNOWN, "GENREG_RC_DURABILITY_UNKNOWN", -22337, "08007",
               "The system did not confirm that the change is on the disk, or that it is gone from there. Check the "
               "disk, then read the record and repeat the change if it is missing."},
    ReturnCode{GENREG_RC_LOCK_UNSUPPORTED, "GENREG_RC_LOCK_UNSUPPORTED", -22338, "0A000",
               "The file system of the metadata directory has no file locks, without which nothing is changed. Use a "
               "directory on another file system."},
    ReturnCode{GENREG_RC_SYSTEM_ERROR, "GENREG_RC_SYSTEM_ERROR", -22339, "58000",
               "A call to the operating system failed for an unusual reason. Look at the trace and the system log."},
    ReturnCode{
        GENREG_RC_INTERNAL, "GENREG_RC_INTERNAL", -22340, "58004",
        "The software met a state that must not occur. Keep the record file and a trace of the call, and report it."},
    ReturnCode{GENREG_RC_SCAN_OPEN, "GENREG_RC_SCAN_OPEN", -22341, "24502",
               "A scan is open on this object already. Close it first, or use a second object."},
    ReturnCode{
        GENREG_RC_NO_BATCH, "GENREG_RC_NO_BATCH", -22342, "25000",
        "No batch of changes is under way on this object, or it was begun before this process was forked. Begin one "
        "first."},
    ReturnCode{GENREG_RC_BATCH_OPEN, "GENREG_RC_BATCH_OPEN", -22343, "25001",
               "A batch of changes is under way on this object. Commit it first, or use a second object."},
    ReturnCode{GENREG_RC_NO_ENGINE, "GENREG_RC_NO_ENGINE", -22344, "0A000",
               "The records are kept by an engine that is not installed here; the file in their place only names it. "
               "Install that engine, or correct the metadata directory."},
    ReturnCode{GENREG_RC_DAMAGED_STUB, "GENREG_RC_DAMAGED_STUB", -22345, "58004",
               "The small file that names the engine of the records is damaged and was left untouched. Put the same "
               "file from another host or from a copy in its place; the records themselves are not concerned."},
};

constexpr std::array BOUNDARY_SQL_STATES{
    SqlState{SQLCODE_CONTACT_EXISTS, "23505"},   // a contact or contact group exists already
    SqlState{SQLCODE_CONTACT_MISSING, "02000"},  // no such contact or contact group
    SqlState{SQLCODE_RECORD_EXISTS, "23505"},    // any other record exists already
    SqlState{SQLCODE_RECORD_MISSING, "02000"},   // no such other record
    SqlState{UNKNOWN_CODE_SQLCODE, UNKNOWN_SQLCODE_SQLSTATE},
};

}  // namespace

std::span<const ReturnCode> returnCodes() { return RETURN_CODES; }

std::span<const SqlState> boundarySqlStates() { return BOUNDARY_SQL_STATES; }

const ReturnCode* findReturnCode(std::uint32_t value) {
  const auto found = std::ranges::find(RETURN_CODES, value, &ReturnCode::value);
  return found != RETURN_CODES.end() ? &*found : nullptr;
}

const char* findSqlState(std::int32_t sqlcode) {
  const auto boundary = std::ranges::find(BOUNDARY_SQL_STATES, sqlcode, &SqlState::sqlcode);
  if (boundary != BOUNDARY_SQL_STATES.end()) return boundary->sqlstate;
  const auto code = std::ranges::find(RETURN_CODES, sqlcode, &ReturnCode::sqlcode);
  return code != RETURN_CODES.end() ? code->sqlstate : UNKNOWN_SQLCODE_SQLSTATE;
}

}  // namespace zon
