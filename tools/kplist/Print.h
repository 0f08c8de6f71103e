// Prints trees and values.
#ifndef KALVOREN_KPLIST_PRINT_H
#define KALVOREN_KPLIST_PRINT_H

class KPropertyNode;

namespace kplist {

/// Whether standard output is a terminal that shall have colours: not where TERM is "dumb" or NO_COLOR is set.
bool WantsColour();

// Both take the tree apart as they print it: a child is reached at once only as the first one, and going through them by
// index would take a time that grows with the square of their number.

/// Prints what hangs under a node, a line for each node with its type and text, indented by level. A key with a single
/// value has it on its own line. Other values are numbered within what holds them.
void PrintTree(KPropertyNode& node, bool fgColour);

/// Prints the value of a node: the texts of a key's values line by line, or the tree where there are keys under it. A
/// value prints its own text.
void PrintValue(KPropertyNode& node, bool fgColour);

}  // namespace kplist

#endif  // KALVOREN_KPLIST_PRINT_H
