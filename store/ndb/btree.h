// The ordered-node interface shared by every B-tree of the store: the pages of the node and block
// B-trees, the subnode blocks, and the heap B-trees built on nodes. A tree is a root node; leaves hold
// (key, value) pairs, intermediate nodes (key, child) pairs, both sorted by key.
#ifndef TARN_STORE_NDB_BTREE_H_
#define TARN_STORE_NDB_BTREE_H_

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "store/ndb/errors.h"

namespace tarn::ndb {

// Levels any walk may descend through intermediate nodes. The widest intermediate page of the
// Unicode layout fans out 20 ways, so seven levels already reach more pages than a 50 GB store holds;
// sixteen leaves room for every real tree while a tree whose pointers loop or nest without end fails
// after a few page reads instead of exhausting the stack.
inline constexpr size_t kMaxBtreeDepth = 16;

// The search behind btree_node::binary_search over any keys: `key_at(i)` gives key i of `count`. A leaf
// that holds its entries in a vector searches them with this directly, without a virtual call per step;
// the steps are the same, so that a damaged node (keys out of order, or one key twice) gives the same
// answer either way.
template <typename K, typename KeyAt>
int search_keys(size_t count, const K& key, KeyAt&& key_at) {
    size_t low = 0;
    size_t high = count;
    size_t middle = high / 2;
    while (middle < high) {
        const K& at = key_at(middle);
        if (at == key) return static_cast<int>(middle);
        if (at < key) {
            low = middle + 1;
        } else {
            high = middle;
        }
        middle = (low + high) / 2;
    }
    return static_cast<int>(middle) - 1;
}

// search_keys over the keys of (key, anything) entries held in a vector.
template <typename K, typename T>
int search_entries(const std::vector<std::pair<K, T>>& entries, const K& key) {
    return search_keys(entries.size(), key, [&entries](size_t i) -> const K& { return entries[i].first; });
}

// btree_node_leaf::find over (key, value) entries held in a vector.
template <typename K, typename V>
const V* find_in_entries(const std::vector<std::pair<K, V>>& entries, const K& key) {
    const int position = search_entries(entries, key);
    if (position < 0 || !(entries[static_cast<size_t>(position)].first == key)) return nullptr;
    return &entries[static_cast<size_t>(position)].second;
}

template <typename K, typename V>
class btree_node_leaf;
template <typename K, typename V>
class btree_node_nonleaf;

// Where a walk stands: the leaf and position in it, and the (intermediate node, child position) pairs
// above it, root first. Raw pointers: the nodes are owned by their parents' caches, and the iterator
// that owns this state keeps the root alive.
template <typename K, typename V>
struct btree_iter_state {
    std::vector<std::pair<const btree_node_nonleaf<K, V>*, size_t>> path;
    const btree_node_leaf<K, V>* leaf = nullptr;
    size_t position = 0;
};

template <typename K, typename V>
class btree_node {
  public:
    virtual ~btree_node() = default;

    // The value stored for `key`, or null exactly where lookup throws key_not_found<K>; any other
    // failure throws as it does. For the callers that ask whether a key is there, which is common
    // (most properties a reader asks for are absent), without paying for an exception each time.
    virtual const V* find(const K& key) const = 0;

    // The value stored for `key`. Throws key_not_found<K> when the tree has none.
    const V& lookup(const K& key) const {
        if (const V* value = find(key)) return *value;
        throw key_not_found<K>(key);
    }

    // This node as an intermediate node, or null for a leaf: the descent asks it at every level, which
    // a virtual call answers more cheaply than a cast across the virtual bases.
    virtual const btree_node_nonleaf<K, V>* as_nonleaf() const { return nullptr; }
    virtual const K& get_key(size_t position) const = 0;
    virtual size_t num_values() const = 0;

    // The four steps of an in-order walk (used by btree_iterator).
    virtual void first(btree_iter_state<K, V>& state) const = 0;
    virtual void last(btree_iter_state<K, V>& state) const = 0;
    virtual void next(btree_iter_state<K, V>& state) const = 0;
    virtual void prev(btree_iter_state<K, V>& state) const = 0;

    // The position of `key`, or else of the greatest key below it; -1 when every key is greater (and
    // for an empty node). Keys are compared as unsigned numbers. Nodes that hold their keys in a vector
    // override it with the same steps over the vector (search_keys), sparing a virtual call per step.
    virtual int binary_search(const K& key) const {
        return search_keys(num_values(), key,
                           [this](size_t position) -> const K& { return get_key(position); });
    }
};

template <typename K, typename V>
class btree_node_leaf : public virtual btree_node<K, V> {
  public:
    virtual const V& get_value(size_t position) const = 0;

    const V* find(const K& key) const override {
        const int position = this->binary_search(key);
        if (position < 0 || !(this->get_key(static_cast<size_t>(position)) == key)) return nullptr;
        return &get_value(static_cast<size_t>(position));
    }

    void first(btree_iter_state<K, V>& state) const override {
        state.leaf = this;
        state.position = 0;
    }
    void last(btree_iter_state<K, V>& state) const override {
        state.leaf = this;
        state.position = this->num_values() == 0 ? 0 : this->num_values() - 1;
    }

    // Steps to the next value, climbing to the nearest intermediate node with a further child and
    // skipping empty leaves. Past the last value the walk stays on the last leaf at its count: the end.
    void next(btree_iter_state<K, V>& state) const override {
        ++state.position;
        while (state.position >= state.leaf->num_values()) {
            size_t level = state.path.size();
            while (level > 0 && state.path[level - 1].second + 1 >= state.path[level - 1].first->num_values())
                --level;
            if (level == 0) {
                state.position = state.leaf->num_values();
                return;
            }
            state.path.resize(level);
            state.path.back().first->next(state);
        }
    }

    // The mirror of next; before the first value the walk stays where it is.
    void prev(btree_iter_state<K, V>& state) const override {
        while (true) {
            if (state.position > 0 && state.position <= state.leaf->num_values()) {
                --state.position;
                return;
            }
            size_t level = state.path.size();
            while (level > 0 && state.path[level - 1].second == 0) --level;
            if (level == 0) return;
            state.path.resize(level);
            state.path.back().first->prev(state);
            // Landed after the last value of the new leaf; the loop steps back onto it.
            state.position = state.leaf->num_values();
        }
    }
};

template <typename K, typename V>
class btree_node_nonleaf : public virtual btree_node<K, V> {
  public:
    // The child at `position`, loaded on first use and kept by this node. Valid as long as this node.
    virtual const btree_node<K, V>* get_child(size_t position) const = 0;

    // Descends level by level (a loop, not recursion) and counts the levels: a child's own level is
    // deliberately not compared with its parent's, so the count is what stops a tree that never ends.
    const V* find(const K& key) const override {
        const btree_node<K, V>* node = this;
        for (size_t depth = 0;; ++depth) {
            const btree_node_nonleaf<K, V>* nonleaf = node->as_nonleaf();
            if (nonleaf == nullptr) return node->find(key);
            if (depth >= kMaxBtreeDepth) throw database_corrupt("b-tree nests deeper than any store can");
            const int position = nonleaf->binary_search(key);
            if (position < 0) return nullptr;
            node = nonleaf->get_child(static_cast<size_t>(position));
        }
    }

    const btree_node_nonleaf<K, V>* as_nonleaf() const override { return this; }

    void first(btree_iter_state<K, V>& state) const override {
        enter(state, 0);
        get_child(0)->first(state);
    }
    void last(btree_iter_state<K, V>& state) const override {
        enter(state, this->num_values() == 0 ? 0 : this->num_values() - 1);
        get_child(state.path.back().second)->last(state);
    }
    // Requires: this node is the last of state.path and has a child after the current one.
    void next(btree_iter_state<K, V>& state) const override {
        const size_t position = ++state.path.back().second;
        get_child(position)->first(state);
    }
    // Requires: this node is the last of state.path and its current child is not the first.
    void prev(btree_iter_state<K, V>& state) const override {
        const size_t position = --state.path.back().second;
        get_child(position)->last(state);
    }

  private:
    void enter(btree_iter_state<K, V>& state, size_t position) const {
        if (state.path.size() >= kMaxBtreeDepth)
            throw database_corrupt("b-tree nests deeper than any store can");
        if (this->num_values() == 0) throw database_corrupt("b-tree intermediate node has no entries");
        state.path.emplace_back(this, position);
    }
};

// An in-order walk over the values of a tree. Holds the root; every node below it is kept by its
// parent. Two iterators are equal when they stand on the same leaf at the same position.
template <typename K, typename V>
class btree_iterator {
  public:
    btree_iterator() = default;

    static btree_iterator begin(std::shared_ptr<const btree_node<K, V>> root) {
        btree_iterator it(std::move(root));
        it.root_->first(it.state_);
        if (it.state_.position >= it.state_.leaf->num_values()) it.state_.leaf->next(it.state_);
        return it;
    }
    static btree_iterator end(std::shared_ptr<const btree_node<K, V>> root) {
        btree_iterator it(std::move(root));
        it.root_->last(it.state_);
        it.state_.position = it.state_.leaf->num_values();
        return it;
    }

    const V& operator*() const { return state_.leaf->get_value(state_.position); }
    const V* operator->() const { return &**this; }
    const K& key() const { return state_.leaf->get_key(state_.position); }

    btree_iterator& operator++() {
        state_.leaf->next(state_);
        return *this;
    }
    btree_iterator& operator--() {
        state_.leaf->prev(state_);
        return *this;
    }
    bool operator==(const btree_iterator& other) const {
        return state_.leaf == other.state_.leaf && state_.position == other.state_.position;
    }

  private:
    explicit btree_iterator(std::shared_ptr<const btree_node<K, V>> root) : root_(std::move(root)) {}

    std::shared_ptr<const btree_node<K, V>> root_;
    btree_iter_state<K, V> state_;
};

// For range-for over a whole tree: `for (const node_info& info : btree_range(root))`.
template <typename K, typename V>
class btree_range {
  public:
    explicit btree_range(std::shared_ptr<const btree_node<K, V>> root) : root_(std::move(root)) {}
    btree_iterator<K, V> begin() const { return btree_iterator<K, V>::begin(root_); }
    btree_iterator<K, V> end() const { return btree_iterator<K, V>::end(root_); }

  private:
    std::shared_ptr<const btree_node<K, V>> root_;
};

template <typename K, typename V>
btree_range(std::shared_ptr<const btree_node<K, V>>) -> btree_range<K, V>;

}  // namespace tarn::ndb

#endif  // TARN_STORE_NDB_BTREE_H_
