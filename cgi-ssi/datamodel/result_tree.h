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
#include <string>
#include <string_view>
#include <vector>

namespace cgissi::datamodel {

// The shape of qm_node: a key of an inner node or the value of a leaf,
// the property's schema type code, the first child and the next sibling.
struct TreeNode {
    std::string_view text;
    std::int8_t type = 0;
    TreeNode *child = nullptr;
    TreeNode *next = nullptr;
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
            // Blocks grow with the tree: a one-value read stays small.
            node_block_size_ = node_blocks_.empty() ? kFirstNodeBlock : std::min(2 * node_block_size_, kMaxNodeBlock);
            node_blocks_.push_back(std::make_unique<TreeNode[]>(node_block_size_));
            nodes_used_ = 0;
        }
        TreeNode *n = &node_blocks_.back()[nodes_used_++];
        n->text = text;
        return n;
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

    // The root (text ""), null until a build made one.
    TreeNode *root = nullptr;

private:
    static constexpr std::size_t kFirstNodeBlock = 32;
    static constexpr std::size_t kMaxNodeBlock = 1024;
    static constexpr std::size_t kFirstTextBlock = 512;
    static constexpr std::size_t kMaxTextBlock = 64 * 1024;

    std::vector<std::unique_ptr<TreeNode[]>> node_blocks_;
    std::size_t node_block_size_ = 0;
    std::size_t nodes_used_ = 0;
    std::vector<std::unique_ptr<char[]>> text_blocks_;
    std::size_t text_block_size_ = 0;
    std::size_t text_used_ = 0;
    std::vector<std::unique_ptr<char[]>> large_texts_;
};

}  // namespace cgissi::datamodel
