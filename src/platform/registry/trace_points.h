// The trace points of libzongenreg: the public operations of the engine.
//
// The rule: as in trace_table.h.
#pragma once

#include "platform/trace_table.h"

namespace zon::trace {

inline constexpr Operation RECORD_OPERATIONS[] = {{0, CONSTRUCTOR}, {1, DESTRUCTOR}, {2, "Add"},    {3, "Get"},
                                                  {4, "Change"},    {5, "Delete"},   {6, "GetNext"}};
inline constexpr Operation FILE_OPERATIONS[] = {
    {0, CONSTRUCTOR},   {1, DESTRUCTOR}, {2, "OpenScan"}, {3, "CloseScan"}, {4, "beginBatch"},
    {5, "commitBatch"}, {6, "status"},   {7, "repair"},   {8, "compact"},   {9, "acknowledgeLoss"}};
inline constexpr Operation SETTING_OPERATIONS[] = {
    {0, CONSTRUCTOR}, {1, DESTRUCTOR}, {2, "setFeature"}, {3, "unsetFeature"}};

inline constexpr Row ENGINE_POINTS[] = {{451417000, "GenRegBin", MEMBER, RECORD_OPERATIONS},
                                        {451417100, "GenRegFile", MEMBER, FILE_OPERATIONS},
                                        {451417200, "GenRegBase", MEMBER, SETTING_OPERATIONS}};

consteval std::uint32_t enginePoint(std::string_view name) { return find(ENGINE_POINTS, name); }

}  // namespace zon::trace
