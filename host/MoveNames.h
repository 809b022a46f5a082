// How a move writes down, among the host values of a catalogue, what it has done.
#ifndef TANSY_HOST_MOVE_NAMES_H
#define TANSY_HOST_MOVE_NAMES_H

#include <string>
#include <vector>

#include "MovedMark.h"

namespace Tansy::Host {

inline constexpr const char* kMoveId = "move_id";        // at the source, while it is being moved
inline constexpr const char* kMoveGoal = "move_goal";    // there: what the new place is called
inline constexpr const char* kMovePlace = "move_place";  // there: how far rows are copied
inline constexpr const char* kMoveFrom = "move_from";    // at the goal, while it is being filled: the id of the move
inline constexpr const char* kMovedTo = "moved_to";      // at the source, when everything is in another place

// At the goal, until the old catalogue has kMovedTo: the id of the move.
inline constexpr const char* kMoveLeaves = "move_leaves";

// The table of open uploads whose parts are written in place.
inline constexpr const char* kUploadTable = "local_object_task";

// Texts as one text, and back. They may hold anything.
std::string Packed(const std::vector<std::string>& texts);
std::vector<std::string> Unpacked(const std::string& text);

// Where everything is since a move, for people; without a password.
std::string DescribeGoal(const MovedMark& mark);

// The statements that make a filled goal a catalogue like others. It remembers that the old one is not marked yet.
std::vector<std::string> EndStatements(const MovedMark& mark);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_NAMES_H
