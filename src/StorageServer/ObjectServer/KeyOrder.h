#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_KEY_ORDER_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_KEY_ORDER_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tansy::CloudStorage {

// Compares the keys that two names of objects stand for: their bytes, with each %XX as the byte that it encodes.
// Returns a negative number, 0 or a positive one.
int CompareKeys(std::string_view left, std::string_view right);
// Gives the key that a name stands for.
std::string KeyOfName(std::string_view name);
// Says whether a name is the canonical one of its key: letters, digits and -._~ stand for themselves, every other byte
// is %XX with capitals. Each key has one such name.
bool IsCanonicalName(std::string_view name);
// Says whether people write the name of this key in other ways too: it has bytes that many clients send as they are,
// and others encoded. Slashes and blanks are always encoded in a name.
bool HasUsualSpellings(std::string_view name);

// Where an object stands in the order of a bucket's keys.
struct KeyOrderLink {
  KeyOrderLink* left = nullptr;
  KeyOrderLink* right = nullptr;
};

// The objects of a bucket in the order of their keys: a treap whose links are part of the objects, so that a change
// needs no memory. The hash of a name is its priority, which makes the tree as flat as a random one. Names that differ
// and stand for the same key lie beside each other, the canonical one first. It is locked by who uses it.
//
// `Node` derives from KeyOrderLink and has Name() and Priority().
template <class Node>
class CKeyOrder {
 public:
  void Insert(Node& node) noexcept {
    KeyOrderLink** link = &root_;
    while (*link != nullptr && At(*link).Priority() >= node.Priority()) {
      link = IsBefore(At(*link).Name(), node.Name()) ? &(*link)->right : &(*link)->left;
    }
    // What lies below is split into what comes before the new node and what comes after it.
    KeyOrderLink* below = *link;
    KeyOrderLink** before = &node.left;
    KeyOrderLink** after = &node.right;
    *link = &node;
    while (below != nullptr) {
      const bool comes_first = IsBefore(At(below).Name(), node.Name());
      KeyOrderLink**& side = comes_first ? before : after;
      *side = below;
      side = comes_first ? &below->right : &below->left;
      below = *side;
    }
    *before = nullptr;
    *after = nullptr;
  }

  // Puts a node in the place of one that is there and has the same name.
  void Replace(const Node& node, Node& by) noexcept {
    by.left = node.left;
    by.right = node.right;
    *LinkTo(node) = &by;
  }

  // Removes a node that is there.
  void Remove(Node& node) noexcept {
    KeyOrderLink** link = LinkTo(node);
    KeyOrderLink* left = node.left;
    KeyOrderLink* right = node.right;
    while (left != nullptr && right != nullptr) {
      const bool left_is_higher = At(left).Priority() >= At(right).Priority();
      KeyOrderLink*& higher = left_is_higher ? left : right;
      *link = higher;
      link = left_is_higher ? &higher->right : &higher->left;
      higher = *link;
    }
    *link = left != nullptr ? left : right;
  }

  // Gives the first node whose key is `key` or comes after it; without `with_key`, the first that comes after it. Null
  // when there is none. `key` is written like a name, with %XX for what a name encodes.
  const Node* FindFrom(std::string_view key, bool with_key) const {
    const Node* found = nullptr;
    const KeyOrderLink* link = root_;
    while (link != nullptr) {
      const Node& node = At(link);
      const int order = CompareKeys(node.Name(), key);
      const bool is_beyond = order > 0 || (order == 0 && with_key);
      found = is_beyond ? &node : found;
      link = is_beyond ? link->left : link->right;
    }
    return found;
  }

  // Shows the nodes from there on, in order, until `look` returns false.
  template <class Look>
  void ShowFrom(std::string_view key, bool with_key, Look look) const {
    // Those that come after what lies left of them; the nearest is the last.
    std::vector<const KeyOrderLink*> beyond;
    const KeyOrderLink* link = root_;
    while (link != nullptr) {
      const int order = CompareKeys(At(link).Name(), key);
      const bool is_beyond = order > 0 || (order == 0 && with_key);
      if (is_beyond) {
        beyond.push_back(link);
      }
      link = is_beyond ? link->left : link->right;
    }
    while (!beyond.empty()) {
      link = beyond.back();
      beyond.pop_back();
      if (!look(At(link))) {
        return;
      }
      for (link = link->right; link != nullptr; link = link->left) {
        beyond.push_back(link);
      }
    }
  }

 private:
  // Gives the link that leads to a node that is there.
  KeyOrderLink** LinkTo(const Node& node) noexcept {
    KeyOrderLink** link = &root_;
    while (*link != &node) {
      link = IsBefore(At(*link).Name(), node.Name()) ? &(*link)->right : &(*link)->left;
    }
    return link;
  }

  static Node& At(KeyOrderLink* link) { return static_cast<Node&>(*link); }
  static const Node& At(const KeyOrderLink* link) { return static_cast<const Node&>(*link); }

  static bool IsBefore(std::string_view left, std::string_view right) {
    const int order = CompareKeys(left, right);
    return order != 0 ? order < 0 : IsPreferred(left, right);
  }

  // Of the names of one key.
  static bool IsPreferred(std::string_view left, std::string_view right) {
    const bool is_canonical = IsCanonicalName(left);
    return is_canonical != IsCanonicalName(right) ? is_canonical : left < right;
  }

  KeyOrderLink* root_ = nullptr;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_KEY_ORDER_H
