#include "model_tree.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace vondle::sim {

ModelTree::NodePtr ModelTree::at(const std::string& path) const {
  NodePtr node = root_;
  std::size_t begin = 1;
  while (node && begin < path.size()) {
    const auto end = std::min(path.find('/', begin), path.size());
    node = child(node, path.substr(begin, end - begin));
    begin = end + 1;
  }
  return node;
}

ModelTree::NodePtr ModelTree::child(const NodePtr& folder, const std::string& name) {
  const auto found = folder->children.find(name);
  return found == folder->children.end() ? nullptr : found->second;
}

ModelTree::NodePtr ModelTree::make(const NodePtr& folder, const std::string& name, bool isFolder) {
  auto node = std::make_shared<Node>();
  node->isFolder = isFolder;
  node->print = isFolder ? "" : "empty";
  node->parent = folder.get();
  node->name = name;
  folder->children[name] = node;
  return node;
}

void ModelTree::move(const NodePtr& folder, const std::string& name, const NodePtr& toFolder,
                     const std::string& toName) {
  auto node = child(folder, name);
  folder->children.erase(name);
  remove(toFolder, toName);
  node->parent = toFolder.get();
  node->name = toName;
  toFolder->children[toName] = std::move(node);
}

void ModelTree::remove(const NodePtr& folder, const std::string& name) {
  if (const auto node = folder->children.extract(name)) node.mapped()->parent = nullptr;
}

std::string ModelTree::pathOf(const Node& node) {
  return node.parent ? pathOf(*node.parent) + "/" + node.name : "";
}

Listing ModelTree::listing() const {
  Listing all;
  collect(*root_, all);
  return all;
}

void ModelTree::collect(const Node& node, Listing& into) {
  for (const auto& [name, below] : node.children) {
    into[pathOf(*below)] = {below->isFolder, below->print};
    collect(*below, into);
  }
}

void ModelTree::become(const Listing& listing) {
  root_ = std::make_shared<Node>();
  root_->isFolder = true;
  for (const auto& [path, leaf] : listing) {
    const auto slash = path.rfind('/');
    make(at(path.substr(0, slash)), path.substr(slash + 1), leaf.isFolder)->print = leaf.print;
  }
}

std::string difference(const Listing& expected, const Listing& found, const std::set<std::string>& except) {
  const auto isExcepted = [&](const std::string& path) {
    return std::ranges::any_of(except, [&](const std::string& one) {
      return path == one || (path.starts_with(one) && path[one.size()] == '/');
    });
  };
  for (const auto& [path, leaf] : expected) {
    if (isExcepted(path)) continue;
    const auto other = found.find(path);
    if (other == found.end()) return fmt::format("{} is missing", path);
    if (other->second != leaf)
      return fmt::format("{} is {} instead of {}", path, other->second.isFolder ? "a folder" : other->second.print,
                         leaf.isFolder ? "a folder" : leaf.print);
  }
  for (const auto& [path, leaf] : found)
    if (!expected.contains(path) && !isExcepted(path)) return fmt::format("{} should not be there", path);
  return {};
}

}  // namespace vondle::sim
