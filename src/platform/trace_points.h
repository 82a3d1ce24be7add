// Every trace point of the system: its identifier and the name of the function it stands for.
//
// The rule: identifiers are part of recorded traces. Never change or reuse one; give a new function the next free
// number of its range and add its row to the table here, from which zontrace takes the names.
//
// How to name a trace point in code:
//   entry points and free functions   zon::trace::MDCustomTree_retrieve
//   members, from a store's base      Store::TRACE_BASE + zon::trace::RETRIEVE_OP
//   any function, by its name         zon::trace::point("GenRegBin::Add"); a name that is not here does not compile
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

namespace zon::trace {

// What the value that a function's exit carries means to a reader.
enum class Result : std::uint8_t { RETURN_CODE, SQLCODE, NUMBER };

struct TracePoint {
  std::uint32_t identifier;
  std::string_view name;
};

// First identifier of each class; the offsets of its operations follow below.
inline constexpr std::uint32_t MD_CUSTOM_TREE = 451413000;
inline constexpr std::uint32_t MD_CONTACT = 451413100;
inline constexpr std::uint32_t MD_CONTACT_GROUP = 451413200;
inline constexpr std::uint32_t MD_SUB_SYSTEM_SETTING = 451413300;
inline constexpr std::uint32_t MD_JCL_SKELETON = 451413400;
inline constexpr std::uint32_t MD_UTIL_NAME_MAPPING = 451413500;
inline constexpr std::uint32_t MD_LOCATION_MAPPING = 451413600;
inline constexpr std::uint32_t MD_CLONING_SUB_SYSTEM_SETTING = 451413700;
inline constexpr std::uint32_t MD_CLONING_HISTORY = 451413800;
inline constexpr std::uint32_t MD_CLONING_MAPPING = 451413900;
inline constexpr std::uint32_t MD_UTILITY_HISTORY = 451414000;
inline constexpr std::uint32_t MD_ONE_KEY_REG = 451414100;
inline constexpr std::uint32_t MD_TWO_KEY_REG = 451414200;
inline constexpr std::uint32_t MD_THREE_KEY_REG = 451414300;
inline constexpr std::uint32_t MD_STRING_PARSER = 451414400;
inline constexpr std::uint32_t GEN_REG_BIN = 451417000;
inline constexpr std::uint32_t GEN_REG_FILE = 451417100;
inline constexpr std::uint32_t GEN_REG_BASE = 451417200;

// Exported functions, by family.
inline constexpr std::uint32_t FIRST_ENTRY_POINT = 451415000;
inline constexpr std::uint32_t LAST_ENTRY_POINT = 451416999;

// Offsets that mean the same in every class.
enum CommonOperation : std::uint32_t {
  CONSTRUCT_OP = 0,
  DESTROY_OP = 1,
};

// Operations of the stores. 2 to 9 mean the same in every store that has them.
enum StoreOperation : std::uint32_t {
  RETRIEVE_KEYS_OP = 2,
  RETRIEVE_ALL_OP = 3,
  RETRIEVE_OP = 4,
  INSERT_OP = 5,
  UPDATE_OP = 6,
  REMOVE_OP = 7,
  REMOVE_LIST_OP = 8,
  RETRIEVE_LIST_OP = 9,
};

// What only MDContact has.
enum ContactOperation : std::uint32_t {
  GET_EMAIL_ADDRESS_OP = 10,
  GET_NOTIFICATION_TYPE_OP = 11,
  GET_DESCRIPTION_OP = 12,
  GET_MAX_PAGE_LENGTH_OP = 13,
};

// What only MDContactGroup has.
enum ContactGroupOperation : std::uint32_t {
  REMOVE_GROUP_OF_KIND_OP = 10,
  REMOVE_GROUP_OP = 11,
  RETRIEVE_GROUP_OR_CONTACT_LIST_OP = 12,
  RETRIEVE_PARENT_GROUP_LIST_OP = 13,
  RETRIEVE_ALL_NAMES_OP = 14,
  RETRIEVE_ALL_CONTACT_OP = 15,
  RETRIEVE_ALL_CONTACT_NAMES_OP = 16,
};

// Functions of the three record types.
enum RecordOperation : std::uint32_t {
  CHECK_KEY_LENGTH_OP = 2,
  CHECK_GROUP_KEY_LENGTH_OP = 3,
  CHECK_SUB_GROUP_KEY_LENGTH_OP = 4,
  CHECK_DATA_LENGTH_OP = 5,
  CHECK_RC_OP = 6,
  MATCH_RECORD_OP = 7,
  VALIDATE_RECORD_OP = 8,
  PRINT_RECORD_OP = 9,
  GET_RECORD_SIZE_OP = 10,
  GET_MAX_RECORD_SIZE_OP = 11,
};

// Functions of MDStringParser.
enum ParserOperation : std::uint32_t {
  OCCURRENCES_OF_TOKEN_OP = 2,
  SPLIT_TOKENIZED_STRING_OP = 3,
  PARSE_TOKENIZED_STRING_OP = 4,
};

// Operations of GenRegBin.
enum RecordFileOperation : std::uint32_t {
  ADD_OP = 2,
  GET_OP = 3,
  CHANGE_OP = 4,
  DELETE_OP = 5,
  GET_NEXT_OP = 6,
};

// Operations of GenRegFile.
enum WholeFileOperation : std::uint32_t {
  OPEN_SCAN_OP = 2,
  CLOSE_SCAN_OP = 3,
  BEGIN_BATCH_OP = 4,
  COMMIT_BATCH_OP = 5,
  STATUS_OP = 6,
  REPAIR_OP = 7,
  COMPACT_OP = 8,
};

// Operations of GenRegBase.
enum SettingOperation : std::uint32_t {
  SET_FEATURE_OP = 2,
  UNSET_FEATURE_OP = 3,
};

// Functions with C linkage and free functions: one row makes the constant and the table's name.
// clang-format off
#define ZON_TRACE_FUNCTIONS(POINT) \
  POINT(451412908, mapMDFileRcToSqlcode) \
  POINT(451412909, mapMDFileRcToSqlca) \
  POINT(451412910, removeMemberFromGroups) \
  POINT(451412911, printSet) \
  POINT(451415000, MDCustomTree_retrieveKeys) \
  POINT(451415001, MDCustomTree_retrieveAll) \
  POINT(451415002, MDCustomTree_remove) \
  POINT(451415003, MDCustomTree_retrieve) \
  POINT(451415004, MDCustomTree_update) \
  POINT(451415005, MDCustomTree_insert) \
  POINT(451415100, MDSubSystemSetting_retrieveKeys) \
  POINT(451415101, MDSubSystemSetting_retrieveAll) \
  POINT(451415102, MDSubSystemSetting_remove) \
  POINT(451415103, MDSubSystemSetting_retrieve) \
  POINT(451415104, MDSubSystemSetting_update) \
  POINT(451415105, MDSubSystemSetting_insert) \
  POINT(451415200, MDUtilNameMapping_retrieveKeys) \
  POINT(451415201, MDUtilNameMapping_retrieveAll) \
  POINT(451415202, MDUtilNameMapping_remove) \
  POINT(451415203, MDUtilNameMapping_retrieve) \
  POINT(451415204, MDUtilNameMapping_update) \
  POINT(451415205, MDUtilNameMapping_insert) \
  POINT(451415300, MDLocationMapping_retrieveKeys) \
  POINT(451415301, MDLocationMapping_retrieveAll) \
  POINT(451415302, MDLocationMapping_remove) \
  POINT(451415303, MDLocationMapping_retrieve) \
  POINT(451415304, MDLocationMapping_update) \
  POINT(451415305, MDLocationMapping_insert) \
  POINT(451415400, MDCloningSubSystemSetting_retrieveKeys) \
  POINT(451415401, MDCloningSubSystemSetting_retrieveAll) \
  POINT(451415402, MDCloningSubSystemSetting_remove) \
  POINT(451415403, MDCloningSubSystemSetting_retrieve) \
  POINT(451415404, MDCloningSubSystemSetting_update) \
  POINT(451415405, MDCloningSubSystemSetting_insert) \
  POINT(451415500, MDContact_retrieveKeys) \
  POINT(451415501, MDContact_retrieveAll) \
  POINT(451415502, MDContact_remove) \
  POINT(451415503, MDContact_retrieve) \
  POINT(451415504, MDContact_update) \
  POINT(451415505, MDContact_insert) \
  POINT(451415600, MDJCLSkeleton_retrieveKeys) \
  POINT(451415601, MDJCLSkeleton_retrieveAll) \
  POINT(451415602, MDJCLSkeleton_removeList) \
  POINT(451415603, MDJCLSkeleton_retrieveList) \
  POINT(451415604, MDJCLSkeleton_remove) \
  POINT(451415605, MDJCLSkeleton_retrieve) \
  POINT(451415606, MDJCLSkeleton_update) \
  POINT(451415607, MDJCLSkeleton_insert) \
  POINT(451415700, MDCloningHistory_retrieveKeys) \
  POINT(451415701, MDCloningHistory_retrieveAll) \
  POINT(451415702, MDCloningHistory_removeList) \
  POINT(451415703, MDCloningHistory_retrieveList) \
  POINT(451415704, MDCloningHistory_remove) \
  POINT(451415705, MDCloningHistory_retrieve) \
  POINT(451415706, MDCloningHistory_update) \
  POINT(451415707, MDCloningHistory_insert) \
  POINT(451415800, MDUtilityHistory_retrieveKeys) \
  POINT(451415801, MDUtilityHistory_retrieveAll) \
  POINT(451415802, MDUtilityHistory_removeList) \
  POINT(451415803, MDUtilityHistory_retrieveList) \
  POINT(451415804, MDUtilityHistory_remove) \
  POINT(451415805, MDUtilityHistory_retrieve) \
  POINT(451415806, MDUtilityHistory_update) \
  POINT(451415807, MDUtilityHistory_insert) \
  POINT(451415900, MDContactGroup_retrieveAllContactNames) \
  POINT(451415901, MDContactGroup_updateDescription) \
  POINT(451415902, MDContactGroup_retrieveKeys) \
  POINT(451415903, MDContactGroup_retrieveAll) \
  POINT(451415904, MDContactGroup_removeList) \
  POINT(451415905, MDContactGroup_removeAll) \
  POINT(451415906, MDContactGroup_remove) \
  POINT(451415907, MDContactGroup_retrieveParentGroupList) \
  POINT(451415908, MDContactGroup_retrieveContactOrGroupList) \
  POINT(451415909, MDContactGroup_retrieveList) \
  POINT(451415910, MDContactGroup_insert) \
  POINT(451416000, ContactAPI_retrieveAll) \
  POINT(451416001, ContactAPI_retrieve) \
  POINT(451416002, ContactAPI_update) \
  POINT(451416003, ContactAPI_insert) \
  POINT(451416100, ContactGroupAPI_retrieveAllContactNames) \
  POINT(451416101, ContactGroupAPI_retrieveList) \
  POINT(451416102, ContactGroupAPI_retrieveAll) \
  POINT(451418000, getMetadataPath) \
  POINT(451418001, setMetadataPath) \
  POINT(451418002, vekFillSqlca) \
  POINT(451418003, ecfToSqlError) \
  POINT(451418004, ecfErrorGetDescription)
// clang-format on

#define ZON_TRACE_CONSTANT(number, function) function = number,
enum Function : std::uint32_t { ZON_TRACE_FUNCTIONS(ZON_TRACE_CONSTANT) };
#undef ZON_TRACE_CONSTANT

#define ZON_TRACE_ROW(number, function) TracePoint{number, #function},
inline constexpr TracePoint POINTS[] = {
    ZON_TRACE_FUNCTIONS(ZON_TRACE_ROW)  // members follow

    {MD_CUSTOM_TREE + CONSTRUCT_OP, "MDCustomTree::MDCustomTree"},
    {MD_CUSTOM_TREE + DESTROY_OP, "MDCustomTree::~MDCustomTree"},
    {MD_CUSTOM_TREE + RETRIEVE_KEYS_OP, "MDCustomTree::retrieveKeys"},
    {MD_CUSTOM_TREE + RETRIEVE_ALL_OP, "MDCustomTree::retrieveAll"},
    {MD_CUSTOM_TREE + RETRIEVE_OP, "MDCustomTree::retrieve"},
    {MD_CUSTOM_TREE + INSERT_OP, "MDCustomTree::insert"},
    {MD_CUSTOM_TREE + UPDATE_OP, "MDCustomTree::update"},
    {MD_CUSTOM_TREE + REMOVE_OP, "MDCustomTree::remove"},

    {MD_CONTACT + CONSTRUCT_OP, "MDContact::MDContact"},
    {MD_CONTACT + DESTROY_OP, "MDContact::~MDContact"},
    {MD_CONTACT + RETRIEVE_KEYS_OP, "MDContact::retrieveKeys"},
    {MD_CONTACT + RETRIEVE_ALL_OP, "MDContact::retrieveAll"},
    {MD_CONTACT + RETRIEVE_OP, "MDContact::retrieve"},
    {MD_CONTACT + INSERT_OP, "MDContact::insert"},
    {MD_CONTACT + UPDATE_OP, "MDContact::update"},
    {MD_CONTACT + REMOVE_OP, "MDContact::remove"},
    {MD_CONTACT + GET_EMAIL_ADDRESS_OP, "MDContact::getEmailAddress"},
    {MD_CONTACT + GET_NOTIFICATION_TYPE_OP, "MDContact::getNotificationType"},
    {MD_CONTACT + GET_DESCRIPTION_OP, "MDContact::getDescription"},
    {MD_CONTACT + GET_MAX_PAGE_LENGTH_OP, "MDContact::getMaxPageLength"},

    {MD_CONTACT_GROUP + CONSTRUCT_OP, "MDContactGroup::MDContactGroup"},
    {MD_CONTACT_GROUP + DESTROY_OP, "MDContactGroup::~MDContactGroup"},
    {MD_CONTACT_GROUP + RETRIEVE_KEYS_OP, "MDContactGroup::retrieveKeys"},
    {MD_CONTACT_GROUP + RETRIEVE_ALL_OP, "MDContactGroup::retrieveAll"},
    {MD_CONTACT_GROUP + INSERT_OP, "MDContactGroup::insert"},
    {MD_CONTACT_GROUP + UPDATE_OP, "MDContactGroup::update"},
    {MD_CONTACT_GROUP + REMOVE_OP, "MDContactGroup::remove"},
    {MD_CONTACT_GROUP + RETRIEVE_LIST_OP, "MDContactGroup::retrieveList"},
    {MD_CONTACT_GROUP + REMOVE_GROUP_OF_KIND_OP, "MDContactGroup::removeGroup(group, kind)"},
    {MD_CONTACT_GROUP + REMOVE_GROUP_OP, "MDContactGroup::removeGroup(group)"},
    {MD_CONTACT_GROUP + RETRIEVE_GROUP_OR_CONTACT_LIST_OP, "MDContactGroup::retrieveGroupOrContactList"},
    {MD_CONTACT_GROUP + RETRIEVE_PARENT_GROUP_LIST_OP, "MDContactGroup::retrieveParentGroupList"},
    {MD_CONTACT_GROUP + RETRIEVE_ALL_NAMES_OP, "MDContactGroup::retrieveAllNames"},
    {MD_CONTACT_GROUP + RETRIEVE_ALL_CONTACT_OP, "MDContactGroup::retrieveAllContact"},
    {MD_CONTACT_GROUP + RETRIEVE_ALL_CONTACT_NAMES_OP, "MDContactGroup::retrieveAllContactNames"},

    {MD_SUB_SYSTEM_SETTING + CONSTRUCT_OP, "MDSubSystemSetting::MDSubSystemSetting"},
    {MD_SUB_SYSTEM_SETTING + DESTROY_OP, "MDSubSystemSetting::~MDSubSystemSetting"},
    {MD_SUB_SYSTEM_SETTING + RETRIEVE_KEYS_OP, "MDSubSystemSetting::retrieveKeys"},
    {MD_SUB_SYSTEM_SETTING + RETRIEVE_ALL_OP, "MDSubSystemSetting::retrieveAll"},
    {MD_SUB_SYSTEM_SETTING + RETRIEVE_OP, "MDSubSystemSetting::retrieve"},
    {MD_SUB_SYSTEM_SETTING + INSERT_OP, "MDSubSystemSetting::insert"},
    {MD_SUB_SYSTEM_SETTING + UPDATE_OP, "MDSubSystemSetting::update"},
    {MD_SUB_SYSTEM_SETTING + REMOVE_OP, "MDSubSystemSetting::remove"},

    {MD_JCL_SKELETON + CONSTRUCT_OP, "MDJCLSkeleton::MDJCLSkeleton"},
    {MD_JCL_SKELETON + DESTROY_OP, "MDJCLSkeleton::~MDJCLSkeleton"},
    {MD_JCL_SKELETON + RETRIEVE_KEYS_OP, "MDJCLSkeleton::retrieveKeys"},
    {MD_JCL_SKELETON + RETRIEVE_ALL_OP, "MDJCLSkeleton::retrieveAll"},
    {MD_JCL_SKELETON + RETRIEVE_OP, "MDJCLSkeleton::retrieve"},
    {MD_JCL_SKELETON + INSERT_OP, "MDJCLSkeleton::insert"},
    {MD_JCL_SKELETON + UPDATE_OP, "MDJCLSkeleton::update"},
    {MD_JCL_SKELETON + REMOVE_OP, "MDJCLSkeleton::remove"},
    {MD_JCL_SKELETON + REMOVE_LIST_OP, "MDJCLSkeleton::removeList"},
    {MD_JCL_SKELETON + RETRIEVE_LIST_OP, "MDJCLSkeleton::retrieveList"},

    {MD_UTIL_NAME_MAPPING + CONSTRUCT_OP, "MDUtilNameMapping::MDUtilNameMapping"},
    {MD_UTIL_NAME_MAPPING + DESTROY_OP, "MDUtilNameMapping::~MDUtilNameMapping"},
    {MD_UTIL_NAME_MAPPING + RETRIEVE_KEYS_OP, "MDUtilNameMapping::retrieveKeys"},
    {MD_UTIL_NAME_MAPPING + RETRIEVE_ALL_OP, "MDUtilNameMapping::retrieveAll"},
    {MD_UTIL_NAME_MAPPING + RETRIEVE_OP, "MDUtilNameMapping::retrieve"},
    {MD_UTIL_NAME_MAPPING + INSERT_OP, "MDUtilNameMapping::insert"},
    {MD_UTIL_NAME_MAPPING + UPDATE_OP, "MDUtilNameMapping::update"},
    {MD_UTIL_NAME_MAPPING + REMOVE_OP, "MDUtilNameMapping::remove"},

    {MD_LOCATION_MAPPING + CONSTRUCT_OP, "MDLocationMapping::MDLocationMapping"},
    {MD_LOCATION_MAPPING + DESTROY_OP, "MDLocationMapping::~MDLocationMapping"},
    {MD_LOCATION_MAPPING + RETRIEVE_KEYS_OP, "MDLocationMapping::retrieveKeys"},
    {MD_LOCATION_MAPPING + RETRIEVE_ALL_OP, "MDLocationMapping::retrieveAll"},
    {MD_LOCATION_MAPPING + RETRIEVE_OP, "MDLocationMapping::retrieve"},
    {MD_LOCATION_MAPPING + INSERT_OP, "MDLocationMapping::insert"},
    {MD_LOCATION_MAPPING + UPDATE_OP, "MDLocationMapping::update"},
    {MD_LOCATION_MAPPING + REMOVE_OP, "MDLocationMapping::remove"},

    {MD_CLONING_SUB_SYSTEM_SETTING + CONSTRUCT_OP, "MDCloningSubSystemSetting::MDCloningSubSystemSetting"},
    {MD_CLONING_SUB_SYSTEM_SETTING + DESTROY_OP, "MDCloningSubSystemSetting::~MDCloningSubSystemSetting"},
    {MD_CLONING_SUB_SYSTEM_SETTING + RETRIEVE_KEYS_OP, "MDCloningSubSystemSetting::retrieveKeys"},
    {MD_CLONING_SUB_SYSTEM_SETTING + RETRIEVE_ALL_OP, "MDCloningSubSystemSetting::retrieveAll"},
    {MD_CLONING_SUB_SYSTEM_SETTING + RETRIEVE_OP, "MDCloningSubSystemSetting::retrieve"},
    {MD_CLONING_SUB_SYSTEM_SETTING + INSERT_OP, "MDCloningSubSystemSetting::insert"},
    {MD_CLONING_SUB_SYSTEM_SETTING + UPDATE_OP, "MDCloningSubSystemSetting::update"},
    {MD_CLONING_SUB_SYSTEM_SETTING + REMOVE_OP, "MDCloningSubSystemSetting::remove"},

    {MD_CLONING_HISTORY + CONSTRUCT_OP, "MDCloningHistory::MDCloningHistory"},
    {MD_CLONING_HISTORY + DESTROY_OP, "MDCloningHistory::~MDCloningHistory"},
    {MD_CLONING_HISTORY + RETRIEVE_KEYS_OP, "MDCloningHistory::retrieveKeys"},
    {MD_CLONING_HISTORY + RETRIEVE_ALL_OP, "MDCloningHistory::retrieveAll"},
    {MD_CLONING_HISTORY + RETRIEVE_OP, "MDCloningHistory::retrieve"},
    {MD_CLONING_HISTORY + INSERT_OP, "MDCloningHistory::insert"},
    {MD_CLONING_HISTORY + UPDATE_OP, "MDCloningHistory::update"},
    {MD_CLONING_HISTORY + REMOVE_OP, "MDCloningHistory::remove"},
    {MD_CLONING_HISTORY + REMOVE_LIST_OP, "MDCloningHistory::removeList"},
    {MD_CLONING_HISTORY + RETRIEVE_LIST_OP, "MDCloningHistory::retrieveList"},

    {MD_CLONING_MAPPING + CONSTRUCT_OP, "MDCloningMapping::MDCloningMapping"},
    {MD_CLONING_MAPPING + DESTROY_OP, "MDCloningMapping::~MDCloningMapping"},
    {MD_CLONING_MAPPING + RETRIEVE_KEYS_OP, "MDCloningMapping::retrieveKeys"},
    {MD_CLONING_MAPPING + RETRIEVE_ALL_OP, "MDCloningMapping::retrieveAll"},
    {MD_CLONING_MAPPING + RETRIEVE_OP, "MDCloningMapping::retrieve"},
    {MD_CLONING_MAPPING + INSERT_OP, "MDCloningMapping::insert"},
    {MD_CLONING_MAPPING + UPDATE_OP, "MDCloningMapping::update"},
    {MD_CLONING_MAPPING + REMOVE_OP, "MDCloningMapping::remove"},

    {MD_UTILITY_HISTORY + CONSTRUCT_OP, "MDUtilityHistory::MDUtilityHistory"},
    {MD_UTILITY_HISTORY + DESTROY_OP, "MDUtilityHistory::~MDUtilityHistory"},
    {MD_UTILITY_HISTORY + RETRIEVE_KEYS_OP, "MDUtilityHistory::retrieveKeys"},
    {MD_UTILITY_HISTORY + RETRIEVE_ALL_OP, "MDUtilityHistory::retrieveAll"},
    {MD_UTILITY_HISTORY + RETRIEVE_OP, "MDUtilityHistory::retrieve"},
    {MD_UTILITY_HISTORY + INSERT_OP, "MDUtilityHistory::insert"},
    {MD_UTILITY_HISTORY + UPDATE_OP, "MDUtilityHistory::update"},
    {MD_UTILITY_HISTORY + REMOVE_OP, "MDUtilityHistory::remove"},
    {MD_UTILITY_HISTORY + REMOVE_LIST_OP, "MDUtilityHistory::removeList"},
    {MD_UTILITY_HISTORY + RETRIEVE_LIST_OP, "MDUtilityHistory::retrieveList"},

    {MD_ONE_KEY_REG + CONSTRUCT_OP, "MDOneKeyReg::MDOneKeyReg"},
    {MD_ONE_KEY_REG + DESTROY_OP, "MDOneKeyReg::~MDOneKeyReg"},
    {MD_ONE_KEY_REG + CHECK_KEY_LENGTH_OP, "MDOneKeyReg::checkKeyLength"},
    {MD_ONE_KEY_REG + CHECK_DATA_LENGTH_OP, "MDOneKeyReg::checkDataLength"},
    {MD_ONE_KEY_REG + CHECK_RC_OP, "MDOneKeyReg::checkRC"},
    {MD_ONE_KEY_REG + MATCH_RECORD_OP, "MDOneKeyReg::MatchRecord"},
    {MD_ONE_KEY_REG + VALIDATE_RECORD_OP, "MDOneKeyReg::ValidateRecord"},
    {MD_ONE_KEY_REG + PRINT_RECORD_OP, "MDOneKeyReg::PrintRecord"},
    {MD_ONE_KEY_REG + GET_RECORD_SIZE_OP, "MDOneKeyReg::GetRecordSize"},
    {MD_ONE_KEY_REG + GET_MAX_RECORD_SIZE_OP, "MDOneKeyReg::GetMaxRecordSize"},

    {MD_TWO_KEY_REG + CONSTRUCT_OP, "MDTwoKeyReg::MDTwoKeyReg"},
    {MD_TWO_KEY_REG + DESTROY_OP, "MDTwoKeyReg::~MDTwoKeyReg"},
    {MD_TWO_KEY_REG + CHECK_KEY_LENGTH_OP, "MDTwoKeyReg::checkKeyLength"},
    {MD_TWO_KEY_REG + CHECK_GROUP_KEY_LENGTH_OP, "MDTwoKeyReg::checkGroupKeyLength"},
    {MD_TWO_KEY_REG + CHECK_DATA_LENGTH_OP, "MDTwoKeyReg::checkDataLength"},
    {MD_TWO_KEY_REG + CHECK_RC_OP, "MDTwoKeyReg::checkRC"},
    {MD_TWO_KEY_REG + MATCH_RECORD_OP, "MDTwoKeyReg::MatchRecord"},
    {MD_TWO_KEY_REG + VALIDATE_RECORD_OP, "MDTwoKeyReg::ValidateRecord"},
    {MD_TWO_KEY_REG + PRINT_RECORD_OP, "MDTwoKeyReg::PrintRecord"},
    {MD_TWO_KEY_REG + GET_RECORD_SIZE_OP, "MDTwoKeyReg::GetRecordSize"},
    {MD_TWO_KEY_REG + GET_MAX_RECORD_SIZE_OP, "MDTwoKeyReg::GetMaxRecordSize"},

    {MD_THREE_KEY_REG + CONSTRUCT_OP, "MDThreeKeyReg::MDThreeKeyReg"},
    {MD_THREE_KEY_REG + DESTROY_OP, "MDThreeKeyReg::~MDThreeKeyReg"},
    {MD_THREE_KEY_REG + CHECK_KEY_LENGTH_OP, "MDThreeKeyReg::checkKeyLength"},
    {MD_THREE_KEY_REG + CHECK_GROUP_KEY_LENGTH_OP, "MDThreeKeyReg::checkGroupKeyLength"},
    {MD_THREE_KEY_REG + CHECK_SUB_GROUP_KEY_LENGTH_OP, "MDThreeKeyReg::checkSubGroupKeyLength"},
    {MD_THREE_KEY_REG + CHECK_DATA_LENGTH_OP, "MDThreeKeyReg::checkDataLength"},
    {MD_THREE_KEY_REG + CHECK_RC_OP, "MDThreeKeyReg::checkRC"},
    {MD_THREE_KEY_REG + MATCH_RECORD_OP, "MDThreeKeyReg::MatchRecord"},
    {MD_THREE_KEY_REG + VALIDATE_RECORD_OP, "MDThreeKeyReg::ValidateRecord"},
    {MD_THREE_KEY_REG + PRINT_RECORD_OP, "MDThreeKeyReg::PrintRecord"},
    {MD_THREE_KEY_REG + GET_RECORD_SIZE_OP, "MDThreeKeyReg::GetRecordSize"},
    {MD_THREE_KEY_REG + GET_MAX_RECORD_SIZE_OP, "MDThreeKeyReg::GetMaxRecordSize"},

    {MD_STRING_PARSER + CONSTRUCT_OP, "MDStringParser::MDStringParser"},
    {MD_STRING_PARSER + DESTROY_OP, "MDStringParser::~MDStringParser"},
    {MD_STRING_PARSER + OCCURRENCES_OF_TOKEN_OP, "MDStringParser::occurrencesOfToken"},
    {MD_STRING_PARSER + SPLIT_TOKENIZED_STRING_OP, "MDStringParser::splitTokenizedString"},
    {MD_STRING_PARSER + PARSE_TOKENIZED_STRING_OP, "MDStringParser::parseTokenizedString"},

    {GEN_REG_BIN + CONSTRUCT_OP, "GenRegBin::GenRegBin"},
    {GEN_REG_BIN + DESTROY_OP, "GenRegBin::~GenRegBin"},
    {GEN_REG_BIN + ADD_OP, "GenRegBin::Add"},
    {GEN_REG_BIN + GET_OP, "GenRegBin::Get"},
    {GEN_REG_BIN + CHANGE_OP, "GenRegBin::Change"},
    {GEN_REG_BIN + DELETE_OP, "GenRegBin::Delete"},
    {GEN_REG_BIN + GET_NEXT_OP, "GenRegBin::GetNext"},

    {GEN_REG_FILE + CONSTRUCT_OP, "GenRegFile::GenRegFile"},
    {GEN_REG_FILE + DESTROY_OP, "GenRegFile::~GenRegFile"},
    {GEN_REG_FILE + OPEN_SCAN_OP, "GenRegFile::OpenScan"},
    {GEN_REG_FILE + CLOSE_SCAN_OP, "GenRegFile::CloseScan"},
    {GEN_REG_FILE + BEGIN_BATCH_OP, "GenRegFile::beginBatch"},
    {GEN_REG_FILE + COMMIT_BATCH_OP, "GenRegFile::commitBatch"},
    {GEN_REG_FILE + STATUS_OP, "GenRegFile::status"},
    {GEN_REG_FILE + REPAIR_OP, "GenRegFile::repair"},
    {GEN_REG_FILE + COMPACT_OP, "GenRegFile::compact"},

    {GEN_REG_BASE + CONSTRUCT_OP, "GenRegBase::GenRegBase"},
    {GEN_REG_BASE + DESTROY_OP, "GenRegBase::~GenRegBase"},
    {GEN_REG_BASE + SET_FEATURE_OP, "GenRegBase::setFeature"},
    {GEN_REG_BASE + UNSET_FEATURE_OP, "GenRegBase::unsetFeature"},
};
#undef ZON_TRACE_ROW
#undef ZON_TRACE_FUNCTIONS

// The name of a trace point, or an empty text for a number that is not in the table.
constexpr std::string_view nameOf(std::uint32_t identifier) {
  for (const TracePoint& row : POINTS) {
    if (row.identifier == identifier) return row.name;
  }
  return {};
}

// The identifier of a function by its name in the table.
consteval std::uint32_t point(std::string_view name) {
  for (const TracePoint& row : POINTS) {
    if (row.name == name) return row.identifier;
  }
  throw "no such trace point";
}

constexpr Result resultOf(std::uint32_t identifier) {
  if (identifier >= FIRST_ENTRY_POINT && identifier <= LAST_ENTRY_POINT) return Result::SQLCODE;
  switch (identifier) {
    case mapMDFileRcToSqlcode:
    case mapMDFileRcToSqlca:
    case ecfToSqlError:
      return Result::SQLCODE;
    case getMetadataPath:
    case setMetadataPath:
    case MD_STRING_PARSER + OCCURRENCES_OF_TOKEN_OP:
    case MD_ONE_KEY_REG + MATCH_RECORD_OP:
    case MD_TWO_KEY_REG + MATCH_RECORD_OP:
    case MD_THREE_KEY_REG + MATCH_RECORD_OP:
      return Result::NUMBER;
    default:
      return Result::RETURN_CODE;
  }
}

namespace detail {

// One pass over sorted copies: quadratic comparison of all rows would cost every including file.
consteval bool identifiersAreUnique() {
  std::array<std::uint32_t, std::size(POINTS)> sorted{};
  for (std::size_t i = 0; i < sorted.size(); ++i) {
    std::size_t at = i;
    for (; at > 0 && sorted[at - 1] > POINTS[i].identifier; --at) sorted[at] = sorted[at - 1];
    sorted[at] = POINTS[i].identifier;
  }
  for (std::size_t i = 1; i < sorted.size(); ++i) {
    if (sorted[i - 1] == sorted[i]) return false;
  }
  return true;
}

}  // namespace detail

static_assert(detail::identifiersAreUnique(), "two functions share a trace point identifier");
static_assert(mapMDFileRcToSqlcode == 451412908 && mapMDFileRcToSqlca == 451412909, "numbers that readers know");

}  // namespace zon::trace
