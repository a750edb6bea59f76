// The result tree of a data-model read as the responder builds and prints
// it: nodes and their texts in one arena owned by the tree, so that a read
// of a thousand instances allocates a few blocks instead of two heap
// objects per node. The C interface's qm_node trees are copies of these
// (qm_node.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "qm_config.h"
#include "quelm_owned.h"

namespace cgissi::datamodel {

// Room for N values of T, left uninitialized: a slot is written with put()
// before it is read. For the small arrays a read needs on every request,
// which would otherwise be zeroed first in full.
template <class T, std::size_t N>
class UninitializedSlots {
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

public:
    static constexpr std::size_t size() { return N; }
    T *data() { return std::launder(reinterpret_cast<T *>(bytes_)); }
    T *put(std::size_t at, const T &value) { return std::construct_at(reinterpret_cast<T *>(bytes_) + at, value); }

private:
    alignas(T) std::byte bytes_[N * sizeof(T)];
};

// A property as a read gives it: views of texts that live as long as the
// tree (records the tree holds, or texts of its own).
struct TreeMember {
    std::string_view name;
    std::string_view value;
    std::int8_t type;
};

// The shape of qm_node: a key of an inner node or the value of a leaf,
// the property's schema type code, the first child and the next sibling.
// An inner node whose children are all leaves of distinct one-component
// names (an instance's properties, mostly) holds them as members instead:
// member i stands for a child named members[i].name whose only child is
// the leaf members[i].value (both of the member's type), in that order.
// Such a node has no child chain.
struct TreeNode {
    std::string_view text;
    std::int8_t type = 0;
    std::uint32_t member_count = 0;
    const TreeMember *members = nullptr;
    TreeNode *child = nullptr;
    TreeNode *next = nullptr;

    bool has_children() const { return child != nullptr || member_count != 0; }
};

class ResultTree {
public:
    ResultTree() = default;
    ResultTree(const ResultTree &) = delete;
    ResultTree &operator=(const ResultTree &) = delete;

    // A new node holding a copy of text; valid as long as the tree.
    TreeNode *node(std::string_view text) { return node_of(copy(text)); }

    // A new node pointing at text, which must stay valid while the tree is
    // used (a text of the tree's own, or of records that outlive it).
    TreeNode *node_of(std::string_view text) {
        if (nodes_used_ == node_block_size_) {
            // Blocks grow with the tree; a small read's nodes fit in the
            // tree itself.
            node_block_size_ = std::min(2 * node_block_size_, kMaxNodeBlock);
            node_blocks_.push_back(std::make_unique<TreeNode[]>(node_block_size_));
            node_block_ = node_blocks_.back().get();
            nodes_used_ = 0;
        }
        TreeNode node;
        node.text = text;
        if (node_block_ == nullptr) return first_nodes_.put(nodes_used_++, node);
        return std::construct_at(node_block_ + nodes_used_++, node);
    }

    // A copy of text that lives as long as the tree.
    std::string_view copy(std::string_view text) {
        if (text.empty()) return {};
        if (text.size() > kMaxTextBlock / 4) {
            large_texts_.push_back(std::make_unique_for_overwrite<char[]>(text.size()));
            std::memcpy(large_texts_.back().get(), text.data(), text.size());
            return {large_texts_.back().get(), text.size()};
        }
        if (text_used_ + text.size() > text_block_size_) {
            text_block_size_ = text_blocks_.empty() ? kFirstTextBlock : std::min(2 * text_block_size_, kMaxTextBlock);
            if (text.size() > text_block_size_) text_block_size_ = kMaxTextBlock;
            text_blocks_.push_back(std::make_unique_for_overwrite<char[]>(text_block_size_));
            text_used_ = 0;
        }
        char *at = text_blocks_.back().get() + text_used_;
        std::memcpy(at, text.data(), text.size());
        text_used_ += text.size();
        return {at, text.size()};
    }

    // Room for n members that live as long as the tree.
    TreeMember *members(std::size_t n) {
        if (member_blocks_.empty() || members_used_ + n > member_block_size_) {
            // Grown like the node blocks: a one-value read stays small.
            member_block_size_ = member_blocks_.empty() ? kFirstMemberBlock
                                                        : std::min(2 * member_block_size_, kMaxMemberBlock);
            member_block_size_ = std::max(member_block_size_, n);
            member_blocks_.push_back(std::make_unique_for_overwrite<TreeMember[]>(member_block_size_));
            members_used_ = 0;
        }
        TreeMember *at = &member_blocks_.back()[members_used_];
        members_used_ += n;
        return at;
    }

    // Keeps the records of a read alive as long as the tree, so that nodes
    // may point into them.
    void keep(QM_DAT_hold *hold) {
        if (!first_hold_) {
            first_hold_.reset(hold);
        } else {
            holds_.emplace_back(hold);
        }
    }

    // The root (text ""), null until a build made one.
    TreeNode *root = nullptr;

private:
    static constexpr std::size_t kFirstNodeBlock = 16;
    static constexpr std::size_t kMaxNodeBlock = 1024;
    static constexpr std::size_t kFirstTextBlock = 512;
    static constexpr std::size_t kMaxTextBlock = 64 * 1024;
    static constexpr std::size_t kFirstMemberBlock = 16;  // 640 bytes
    static constexpr std::size_t kMaxMemberBlock = 1024;

    UninitializedSlots<TreeNode, kFirstNodeBlock> first_nodes_;
    std::vector<std::unique_ptr<TreeNode[]>> node_blocks_;
    TreeNode *node_block_ = nullptr;  // null: first_nodes_
    std::size_t node_block_size_ = kFirstNodeBlock;
    std::size_t nodes_used_ = 0;
    std::vector<std::unique_ptr<char[]>> text_blocks_;
    std::size_t text_block_size_ = 0;
    std::size_t text_used_ = 0;
    std::vector<std::unique_ptr<char[]>> large_texts_;
    std::vector<std::unique_ptr<TreeMember[]>> member_blocks_;
    std::size_t member_block_size_ = 0;
    std::size_t members_used_ = 0;
    using Hold = std::unique_ptr<QM_DAT_hold, quelm::CDeleter<QM_DAT_releaseobjdata>>;
    Hold first_hold_;  // most trees hold the records of one read
    std::vector<Hold> holds_;
};

}  // namespace cgissi::datamodel
