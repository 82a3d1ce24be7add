// The trace points of libzonmdfile: its classes, its entry points and its free functions, told once. It lies on the
// lowest of the library's floors so that all of them can name theirs.
//
// The rule: as in trace_table.h. Classes have 100 numbers each from 451413000 on, families of entry points 100 each
// from 451415000 on.
#pragma once

#include "platform/trace_table.h"

namespace zon::trace {

inline constexpr Operation MAPPING_FUNCTIONS[] = {{8, "mapMDFileRcToSqlcode", Result::SQLCODE},
                                                  {9, "mapMDFileRcToSqlca", Result::SQLCODE},
                                                  {10, "removeMemberFromGroups"},
                                                  {11, "printSet"}};

// The operations of the record types, and those that only some of them have: with a group key, with a sub-group key.
inline constexpr Operation RECORD_TYPE_OPERATIONS[] = {{0, CONSTRUCTOR},      {1, DESTRUCTOR},
                                                       {2, "checkKeyLength"}, {5, "checkDataLength"},
                                                       {6, "checkRC"},        {7, "MatchRecord", Result::NUMBER},
                                                       {8, "ValidateRecord"}, {9, "PrintRecord"},
                                                       {10, "GetRecordSize"}, {11, "GetMaxRecordSize"}};
inline constexpr Operation GROUP_CHECKS[] = {{3, "checkGroupKeyLength"}, {4, "checkSubGroupKeyLength"}};
inline constexpr std::span TWO_KEY_CHECKS = std::span(GROUP_CHECKS).first<1>();

inline constexpr Operation PARSER_OPERATIONS[] = {{0, CONSTRUCTOR},
                                                  {1, DESTRUCTOR},
                                                  {2, "occurrencesOfToken", Result::NUMBER},
                                                  {3, "splitTokenizedString"},
                                                  {4, "parseTokenizedString"}};

// The operations of the stores; the last two are for those with groups.
inline constexpr Operation GROUPED_STORE_OPERATIONS[] = {
    {0, CONSTRUCTOR}, {1, DESTRUCTOR}, {2, "retrieveKeys"}, {3, "retrieveAll"}, {4, "retrieve"},
    {5, "insert"},    {6, "update"},   {7, "remove"},       {8, "removeList"},  {9, "retrieveList"}};
inline constexpr std::span STORE_OPERATIONS = std::span(GROUPED_STORE_OPERATIONS).first<8>();

inline constexpr Operation CONTACT_FIELD_OPERATIONS[] = {
    {10, "getEmailAddress"}, {11, "getNotificationType"}, {12, "getDescription"}, {13, "getMaxPageLength"}};

inline constexpr Operation CONTACT_GROUP_OPERATIONS[] = {{0, CONSTRUCTOR},
                                                         {1, DESTRUCTOR},
                                                         {2, "retrieveKeys"},
                                                         {3, "retrieveAll"},
                                                         {5, "insert"},
                                                         {6, "update"},
                                                         {7, "remove"},
                                                         {9, "retrieveList"},
                                                         {10, "removeGroup(group, kind)"},
                                                         {11, "removeGroup(group)"},
                                                         {12, "retrieveGroupOrContactList"},
                                                         {13, "retrieveParentGroupList"},
                                                         {14, "retrieveAllNames"},
                                                         {15, "retrieveAllContact"},
                                                         {16, "retrieveAllContactNames"}};

inline constexpr Operation ONE_KEY_ENTRY_POINTS[] = {{0, "retrieveKeys"}, {1, "retrieveAll"}, {2, "remove"},
                                                     {3, "retrieve"},     {4, "update"},      {5, "insert"}};

inline constexpr Operation TWO_KEY_ENTRY_POINTS[] = {{0, "retrieveKeys"}, {1, "retrieveAll"}, {2, "removeList"},
                                                     {3, "retrieveList"}, {4, "remove"},      {5, "retrieve"},
                                                     {6, "update"},       {7, "insert"}};

inline constexpr Operation CONTACT_GROUP_ENTRY_POINTS[] = {{0, "retrieveAllContactNames"},
                                                           {1, "updateDescription"},
                                                           {2, "retrieveKeys"},
                                                           {3, "retrieveAll"},
                                                           {4, "removeList"},
                                                           {5, "removeAll"},
                                                           {6, "remove"},
                                                           {7, "retrieveParentGroupList"},
                                                           {8, "retrieveContactOrGroupList"},
                                                           {9, "retrieveList"},
                                                           {10, "insert"}};

inline constexpr Operation COMBINED_CONTACT_ENTRY_POINTS[] = {
    {0, "retrieveAll"}, {1, "retrieve"}, {2, "update"}, {3, "insert"}};

inline constexpr Operation COMBINED_GROUP_ENTRY_POINTS[] = {
    {0, "retrieveAllContactNames"}, {1, "retrieveList"}, {2, "retrieveAll"}};

inline constexpr Row LIBRARY_POINTS[] = {
    {451412900, "", FREE_FUNCTION, MAPPING_FUNCTIONS},

    {451413000, "MDCustomTree", MEMBER, STORE_OPERATIONS},
    {451413100, "MDContact", MEMBER, STORE_OPERATIONS},
    {451413100, "MDContact", MEMBER, CONTACT_FIELD_OPERATIONS},
    {451413200, "MDContactGroup", MEMBER, CONTACT_GROUP_OPERATIONS},
    {451413300, "MDSubSystemSetting", MEMBER, STORE_OPERATIONS},
    {451413400, "MDJCLSkeleton", MEMBER, GROUPED_STORE_OPERATIONS},
    {451413500, "MDUtilNameMapping", MEMBER, STORE_OPERATIONS},
    {451413600, "MDLocationMapping", MEMBER, STORE_OPERATIONS},
    {451413700, "MDCloningSubSystemSetting", MEMBER, STORE_OPERATIONS},
    {451413800, "MDCloningHistory", MEMBER, GROUPED_STORE_OPERATIONS},
    {451413900, "MDCloningMapping", MEMBER, STORE_OPERATIONS},
    {451414000, "MDUtilityHistory", MEMBER, GROUPED_STORE_OPERATIONS},

    {451414100, "MDOneKeyReg", MEMBER, RECORD_TYPE_OPERATIONS},
    {451414200, "MDTwoKeyReg", MEMBER, RECORD_TYPE_OPERATIONS},
    {451414200, "MDTwoKeyReg", MEMBER, TWO_KEY_CHECKS},
    {451414300, "MDThreeKeyReg", MEMBER, RECORD_TYPE_OPERATIONS},
    {451414300, "MDThreeKeyReg", MEMBER, GROUP_CHECKS},
    {451414400, "MDStringParser", MEMBER, PARSER_OPERATIONS},

    {451415000, "MDCustomTree", ENTRY_POINT, ONE_KEY_ENTRY_POINTS},
    {451415100, "MDSubSystemSetting", ENTRY_POINT, ONE_KEY_ENTRY_POINTS},
    {451415200, "MDUtilNameMapping", ENTRY_POINT, ONE_KEY_ENTRY_POINTS},
    {451415300, "MDLocationMapping", ENTRY_POINT, ONE_KEY_ENTRY_POINTS},
    {451415400, "MDCloningSubSystemSetting", ENTRY_POINT, ONE_KEY_ENTRY_POINTS},
    {451415500, "MDContact", ENTRY_POINT, ONE_KEY_ENTRY_POINTS},
    {451415600, "MDJCLSkeleton", ENTRY_POINT, TWO_KEY_ENTRY_POINTS},
    {451415700, "MDCloningHistory", ENTRY_POINT, TWO_KEY_ENTRY_POINTS},
    {451415800, "MDUtilityHistory", ENTRY_POINT, TWO_KEY_ENTRY_POINTS},
    {451415900, "MDContactGroup", ENTRY_POINT, CONTACT_GROUP_ENTRY_POINTS},
    {451416000, "ContactAPI", ENTRY_POINT, COMBINED_CONTACT_ENTRY_POINTS},
    {451416100, "ContactGroupAPI", ENTRY_POINT, COMBINED_GROUP_ENTRY_POINTS},
};

consteval std::uint32_t point(std::string_view name) { return find(LIBRARY_POINTS, name); }
consteval std::uint32_t point(std::string_view className, std::string_view operationName) {
  return find(LIBRARY_POINTS, className, operationName);
}

static_assert(point("mapMDFileRcToSqlcode") == 451412908 && point("mapMDFileRcToSqlca") == 451412909,
              "numbers that readers know");

}  // namespace zon::trace
