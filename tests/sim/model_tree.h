#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

namespace vondle::sim {

// A folder tree by path: "/a/b" to what is there.
struct Leaf {
  bool isFolder = false;
  std::string print;
  friend bool operator==(const Leaf&, const Leaf&) = default;
};
using Listing = std::map<std::string, Leaf>;

// What the folder must look like when nobody but programs changes it: the file system as each acknowledged call leaves
// it.
class ModelTree {
 public:
  struct Node {
    bool isFolder = false;
    std::string print;
    Node* parent = nullptr;
    std::string name;
    std::map<std::string, std::shared_ptr<Node>> children;
  };
  using NodePtr = std::shared_ptr<Node>;

  ModelTree() : root_(std::make_shared<Node>()) { root_->isFolder = true; }

  [[nodiscard]] NodePtr at(const std::string& path) const;
  static NodePtr child(const NodePtr& folder, const std::string& name);
  NodePtr make(const NodePtr& folder, const std::string& name, bool isFolder);
  void move(const NodePtr& folder, const std::string& name, const NodePtr& toFolder, const std::string& toName);
  static void remove(const NodePtr& folder, const std::string& name);

  // From here on nothing is compared with it any more.
  void giveUp() { isTrusted_ = false; }
  [[nodiscard]] bool isTrusted() const { return isTrusted_; }

  [[nodiscard]] static std::string pathOf(const Node& node);
  [[nodiscard]] Listing listing() const;
  void become(const Listing& listing);

 private:
  static void collect(const Node& node, Listing& into);
  NodePtr root_;
  bool isTrusted_ = true;
};

// The first difference in words, outside the paths given and what is below them; empty: none.
std::string difference(const Listing& expected, const Listing& found, const std::set<std::string>& except);

}  // namespace vondle::sim
