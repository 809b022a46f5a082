// What the first words of a statement say about it.
#ifndef TANSY_DB_LAYER_SQL_WORDS_H
#define TANSY_DB_LAYER_SQL_WORDS_H

#include <string_view>

namespace db_layer {

// Gives the text from its first character that is neither blank nor in a comment.
std::string_view SkipBlanks(std::string_view sql);

// Says whether the text begins with this word (in capitals), in capitals or not.
bool StartsWithWord(std::string_view sql, std::string_view word);

// Gives the name in "SELECT nextval('name')"; nothing when the text is any other.
std::string_view SequenceOf(std::string_view sql);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_SQL_WORDS_H
