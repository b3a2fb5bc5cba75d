// The tree of a parsed text. Nodes live in the tree's own store and point at each other freely.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include <povzel/povzeltypes.h>

namespace zel {

struct Scope;

// A named place for a value: an argument or temporary of a method, a text or a block.
struct Variable {
  std::string name;
  Scope* scope = nullptr;
  bool isArgument = false;
  bool captured = false;    // used in a block that may outlive the activation
  std::uint32_t place = 0;  // in the frame, or in the environment if captured
};

// Where variables are declared: a method, a text, a block with an activation of its own, or the
// body of an inlined loop, whose captured variables are new in every turn.
struct Scope {
  Scope* outer = nullptr;
  Scope* function = nullptr;         // whose activation runs it; itself unless it is a loop's body
  std::vector<Variable*> variables;  // arguments first
  std::uint32_t argumentCount = 0;   // of a function
  std::uint32_t frameTemporaries = 0;  // of a function, loops' included
  std::uint32_t environmentSize = 0;   // captured variables
};

enum class NodeKind { literal, variable, assign, send, cascade, block, answer, brace };

struct Node {
  NodeKind kind = NodeKind::literal;
  std::size_t position = 0;                // in the source
  OopType literal = 0;                     // literal
  std::string name;                        // variable, assign: name; send: selector
  Node* receiver = nullptr;                // send, cascade; null inside a cascade's messages
  std::vector<Node*> parts;                // arguments, messages, statements, elements
  Node* value = nullptr;                   // assign, answer
  std::vector<std::string> parameters;     // block
  std::vector<std::string> temporaries;    // block
  bool inlined = false;                    // block: no activation of its own
  std::vector<Variable*> inlineVariables;  // inlined block: its own variables; loop: limit, counter
  Scope* scope = nullptr;                  // block that is not inlined, or a loop's body
  Variable* variable = nullptr;            // resolved name, null if it is none of the text's own
};

struct Tree {
  std::deque<Node> nodes;
  std::deque<Variable> variables;
  std::deque<Scope> scopes;
  std::string selector;  // of a method, empty for a text
  Node* body = nullptr;  // a block node

  Node* make(NodeKind kind, std::size_t position) {
    Node& node = nodes.emplace_back();
    node.kind = kind;
    node.position = position;
    return &node;
  }
};

}  // namespace zel
