// The tree of a parsed text. Nodes live in the tree's own store and point at each other freely.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "objmem/memory.h"

namespace zel {

struct Scope;
struct Node;

// A named place for a value: an argument or temporary of a method, a text or a block.
struct Variable {
  std::string name;
  Scope* scope = nullptr;
  const Node* block = nullptr;  // that declares it
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

// Selectors whose literal block arguments become jumps.
enum class Control {
  none,
  ifTrue,
  ifFalse,
  ifTrueIfFalse,
  ifFalseIfTrue,
  ifNil,
  ifNotNil,
  ifNilIfNotNil,
  ifNotNilIfNil,
  andBlock,
  orBlock,
  whileTrue,
  whileFalse,
  whileTrueDo,
  whileFalseDo,
  toDo,
  toByDo,
  timesRepeat,
  repeat,
};

// A name where it is declared.
struct Declaration {
  std::string name;
  Position position;
};

struct Node {
  NodeKind kind = NodeKind::literal;
  Position position;                       // in the source; of a message its selector's
  OopType literal = 0;                     // literal
  std::string name;                        // variable, assign: name; send: selector
  Node* receiver = nullptr;                // send, cascade; null inside a cascade's messages
  std::vector<Node*> parts;                // arguments, messages, statements, elements
  Node* value = nullptr;                   // assign, answer
  std::vector<Declaration> parameters;     // block
  std::vector<Declaration> temporaries;    // block
  bool inlined = false;                    // block: no activation of its own
  std::vector<Variable*> inlineVariables;  // inlined block: its own variables; loop: limit, counter
  Scope* scope = nullptr;                  // block that is not inlined, or a loop's body
  Variable* variable = nullptr;            // resolved name, null if it is none of the text's own
  Control control = Control::none;         // send: its form, once names are resolved
};

// What counts as taken while the tree is there: a node, its place in a list, and the op and the
// site that are made of it; a variable with its declaration, and what finds it by its name; an
// element of a literal.
constexpr std::size_t nodeBytes = sizeof(Node) + 2 * (sizeof(void*) + sizeof(Op) + sizeof(Site));
constexpr std::size_t variableBytes = sizeof(Variable) + 2 * sizeof(Declaration) + 64;
constexpr std::size_t elementBytes = 2 * sizeof(OopType);

struct Tree {
  explicit Tree(Memory& memory) : weight(memory) {}

  Weight weight;
  std::deque<Node> nodes;
  std::deque<Variable> variables;
  std::deque<Scope> scopes;
  std::string selector;  // of a method, empty for a text
  Node* body = nullptr;  // a block node

  Node* make(NodeKind kind, Position position) {
    weight.add(nodeBytes + (kind == NodeKind::block ? sizeof(Scope) : 0));
    Node& node = nodes.emplace_back();
    node.kind = kind;
    node.position = position;
    return &node;
  }
};

}  // namespace zel
