#include "scopes.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "objmem/names.h"

namespace zel {

namespace {

constexpr int upToOne = 2;

struct ControlForm {
  std::string_view selector;
  Control control;
  bool receiverBlock;  // the receiver is a literal block
  int blocks[2];       // parameters of each argument that must be a block; -1: any value
};

constexpr ControlForm controlForms[] = {
    {"and:", Control::andBlock, false, {0, -1}},
    {"ifFalse:", Control::ifFalse, false, {0, -1}},
    {"ifFalse:ifTrue:", Control::ifFalseIfTrue, false, {0, 0}},
    {"ifNil:", Control::ifNil, false, {0, -1}},
    {"ifNil:ifNotNil:", Control::ifNilIfNotNil, false, {0, upToOne}},
    {"ifNotNil:", Control::ifNotNil, false, {upToOne, -1}},
    {"ifNotNil:ifNil:", Control::ifNotNilIfNil, false, {upToOne, 0}},
    {"ifTrue:", Control::ifTrue, false, {0, -1}},
    {"ifTrue:ifFalse:", Control::ifTrueIfFalse, false, {0, 0}},
    {"or:", Control::orBlock, false, {0, -1}},
    {"repeat", Control::repeat, true, {-1, -1}},
    {"timesRepeat:", Control::timesRepeat, false, {0, -1}},
    {"to:do:", Control::toDo, false, {-1, 1}},
    {"whileFalse", Control::whileFalse, true, {-1, -1}},
    {"whileFalse:", Control::whileFalseDo, true, {0, -1}},
    {"whileTrue", Control::whileTrue, true, {-1, -1}},
    {"whileTrue:", Control::whileTrueDo, true, {0, -1}},
};
static_assert(std::ranges::is_sorted(controlForms, {}, &ControlForm::selector));

bool isBlockOf(const Node* node, std::size_t parameters) {
  return node != nullptr && node->kind == NodeKind::block && node->parameters.size() == parameters;
}

bool isBlock(const Node* node) {
  return node != nullptr && node->kind == NodeKind::block;
}

bool fitsBlock(const Node* node, int parameters) {
  if (parameters == upToOne) return isBlockOf(node, 0) || isBlockOf(node, 1);
  return isBlockOf(node, static_cast<std::size_t>(parameters));
}

bool isStepLiteral(const Node* node) {
  return node->kind == NodeKind::literal && (node->literal & 3) == 3 && node->literal != 3;
}

// The control form of a send whose blocks all are literal with the right parameters, else none.
Control controlOf(const Node& send) {
  if (send.name == "to:by:do:") {
    const bool fits = send.receiver != nullptr && isStepLiteral(send.parts[1]) &&
                      isBlockOf(send.parts[2], 1) && !isBlock(send.receiver) &&
                      !isBlock(send.parts[0]);
    return fits ? Control::toByDo : Control::none;
  }
  const ControlForm* form = std::ranges::lower_bound(controlForms, std::string_view(send.name), {},
                                                     &ControlForm::selector);
  if (form == std::end(controlForms) || send.name != form->selector) return Control::none;
  if (send.receiver == nullptr) return Control::none;
  const bool receiverFits =
      form->receiverBlock ? isBlockOf(send.receiver, 0) : !isBlock(send.receiver);
  if (!receiverFits) return Control::none;
  for (std::size_t i = 0; i < send.parts.size(); ++i) {
    const int parameters = form->blocks[i];
    const bool fits =
        parameters < 0 ? !isBlock(send.parts[i]) : fitsBlock(send.parts[i], parameters);
    if (!fits) return Control::none;
  }
  return form->control;
}

bool isLoop(Control control) {
  switch (control) {
    case Control::whileTrue:
    case Control::whileFalse:
    case Control::whileTrueDo:
    case Control::whileFalseDo:
    case Control::toDo:
    case Control::toByDo:
    case Control::timesRepeat:
    case Control::repeat:
      return true;
    default:
      return false;
  }
}

class Resolver {
 public:
  Resolver(Tree& tree, const std::vector<std::string>& instVars, Meter& meter)
      : tree_(tree), instVars_(instVars.begin(), instVars.end()), meter_(meter) {}

  void run() {
    enterFunction(*tree_.body);
    for (Scope& scope : tree_.scopes) place(scope);
  }

 private:
  [[noreturn]] static void fail(Position position, const std::string& message) {
    throw Failure(ErrCompile, message).in(position);
  }

  Variable* newVariable(const std::string& name, const Node* block, bool isArgument) {
    tree_.variables.push_back({name, scope_, block, isArgument});
    scope_->variables.push_back(&tree_.variables.back());
    return scope_->variables.back();
  }

  Variable* declare(const Declaration& declaration, const Node& block, bool isArgument) {
    meter_.charge(1);
    const std::string& name = declaration.name;
    if (isReserved(name)) fail(declaration.position, name + " is a reserved name");
    if (instVars_.contains(name)) {
      fail(declaration.position, name + " is an instance variable already");
    }
    std::vector<Variable*>& visible = visible_[name];
    if (!visible.empty() && visible.back()->block == &block) {
      fail(declaration.position, name + " is declared twice");
    }
    visible.push_back(newVariable(name, &block, isArgument));
    inOrder_.push_back(visible.back());
    return visible.back();
  }

  void hideBeyond(std::size_t count) {
    for (; inOrder_.size() > count; inOrder_.pop_back()) visible_[inOrder_.back()->name].pop_back();
  }

  Scope* openScope(Node& block, bool isFunction) {
    Scope& scope = tree_.scopes.emplace_back();
    scope.outer = scope_;
    scope.function = isFunction ? &scope : scope_->function;
    block.scope = &scope;
    return scope_ = &scope;
  }

  void enterFunction(Node& block) {
    Scope* scope = openScope(block, true);
    scope->argumentCount = static_cast<std::uint32_t>(block.parameters.size());
    const std::size_t before = inOrder_.size();
    for (const Declaration& each : block.parameters) declare(each, block, true);
    for (const Declaration& each : block.temporaries) declare(each, block, false);
    for (Node* statement : block.parts) visit(statement);
    hideBeyond(before);
    scope_ = scope->outer;
  }

  void enterInlined(Node& block, bool asLoop) {
    block.inlined = true;
    Scope* outer = scope_;
    if (asLoop) openScope(block, false);
    const std::size_t before = inOrder_.size();
    for (const Declaration& each : block.parameters) {
      block.inlineVariables.push_back(declare(each, block, true));
    }
    for (const Declaration& each : block.temporaries) {
      block.inlineVariables.push_back(declare(each, block, false));
    }
    for (Node* statement : block.parts) visit(statement);
    hideBeyond(before);
    scope_ = outer;
  }

  void resolve(Node& node) {
    if (isReserved(node.name)) {
      if (node.kind == NodeKind::assign) fail(node.position, node.name + " cannot be assigned to");
      return;
    }
    const auto found = visible_.find(node.name);
    if (found == visible_.end() || found->second.empty()) return;
    node.variable = found->second.back();
    if (node.variable->scope->function != scope_->function) node.variable->captured = true;
    if (node.kind == NodeKind::assign && node.variable->isArgument) {
      fail(node.position, "the argument " + node.name + " cannot be assigned to");
    }
  }

  void visitSend(Node* send) {
    // Receivers of receivers are walked in a loop: a chain of messages may be long.
    std::vector<Node*> chain;
    Node* first = send;
    for (; first != nullptr && first->kind == NodeKind::send; first = first->receiver) {
      first->control = controlOf(*first);
      chain.push_back(first);
    }
    if (first != nullptr) visitOperand(first, chain.back()->control);
    for (auto node = chain.rbegin(); node != chain.rend(); ++node) {
      const Control control = (*node)->control;
      if (control == Control::toDo || control == Control::toByDo ||
          control == Control::timesRepeat) {
        // Hidden variables: the limit and the counter.
        (*node)->inlineVariables = {newVariable("", nullptr, false),
                                    newVariable("", nullptr, false)};
      }
      for (Node* part : (*node)->parts) visitOperand(part, control);
    }
  }

  void visitOperand(Node* node, Control control) {
    if (control == Control::none || node->kind != NodeKind::block) return visit(node);
    enterInlined(*node, isLoop(control));
  }

  void visit(Node* node) {
    meter_.charge(1);
    switch (node->kind) {
      case NodeKind::literal:
        break;
      case NodeKind::variable:
        resolve(*node);
        break;
      case NodeKind::assign:
        resolve(*node);
        visit(node->value);
        break;
      case NodeKind::answer:
        visit(node->value);
        break;
      case NodeKind::send:
        visitSend(node);
        break;
      case NodeKind::cascade:
        if (node->receiver != nullptr) visit(node->receiver);
        for (Node* message : node->parts) {
          for (Node* part : message->parts) visit(part);
        }
        break;
      case NodeKind::brace:
        for (Node* part : node->parts) visit(part);
        break;
      case NodeKind::block:
        enterFunction(*node);
        break;
    }
  }

  // Arguments come first in the frame, captured ones too: their values are copied out on entry.
  static void place(Scope& scope) {
    Scope& function = *scope.function;
    for (std::size_t i = 0; i < scope.variables.size(); ++i) {
      Variable& variable = *scope.variables[i];
      if (variable.captured) {
        variable.place = scope.environmentSize++;
      } else if (i < scope.argumentCount) {
        variable.place = static_cast<std::uint32_t>(i);
      } else {
        variable.place = function.argumentCount + function.frameTemporaries++;
      }
    }
  }

  Tree& tree_;
  const std::unordered_set<std::string_view> instVars_;
  Meter& meter_;
  Scope* scope_ = nullptr;
  std::unordered_map<std::string, std::vector<Variable*>> visible_;
  std::vector<Variable*> inOrder_;  // of those that are visible, outermost first
};

}  // namespace

void resolveNames(Tree& tree, const std::vector<std::string>& instVars, Meter& meter) {
  Resolver(tree, instVars, meter).run();
}

}  // namespace zel
