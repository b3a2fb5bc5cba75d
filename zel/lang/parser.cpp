#include "parser.h"

#include <algorithm>

#include "errors/failure.h"
#include "lexer.h"
#include "objmem/integers.h"
#include "objmem/values.h"

namespace zel {

namespace {

// Nesting of parentheses, blocks and arrays; each level costs a few C++ frames.
constexpr int deepestNesting = 100;

class Parser {
 public:
  Parser(Memory& memory, std::string_view source, Tree& tree)
      : memory_(memory), lexer_(source, memory.meter), tree_(tree) {
    tree.weight.add(source.size());  // for the names in it
  }

  void text() {
    tree_.body = make(NodeKind::block);
    temporaries(*tree_.body);
    statements(*tree_.body, Token::end);
  }

  void method() {
    tree_.body = make(NodeKind::block);
    pattern(*tree_.body);
    temporaries(*tree_.body);
    statements(*tree_.body, Token::end);
  }

 private:
  struct Nesting {
    explicit Nesting(Parser& parser) : parser_(parser) {
      if (++parser_.depth_ > deepestNesting) {
        parser_.lexer_.fail("nested more than " + std::to_string(deepestNesting) + " deep");
      }
    }
    ~Nesting() { --parser_.depth_; }
    Nesting(const Nesting&) = delete;
    Nesting& operator=(const Nesting&) = delete;
    Parser& parser_;
  };

  bool at(Token token) const { return lexer_.token == token; }
  bool accept(Token token) {
    if (!at(token)) return false;
    lexer_.next();
    return true;
  }
  [[noreturn]] void missing(std::string_view what) {
    lexer_.fail(std::string(what).append(" is expected"));
  }
  void expect(Token token, const char* what) {
    if (!accept(token)) missing(what);
  }
  std::string takeName(const char* what) {
    if (!at(Token::identifier)) missing(what);
    std::string name = lexer_.text;
    lexer_.next();
    return name;
  }
  void declare(std::vector<Declaration>& names, const char* what) {
    if (++declared_ > mostOps) lexer_.fail("the text is too large: too many variables");
    const Position position = lexer_.position;
    tree_.weight.add(variableBytes);
    names.push_back({takeName(what), position});
  }

  // Each node becomes at least one op, so that a text too large is noticed early.
  Node* make(NodeKind kind) {
    if (tree_.nodes.size() > mostOps) lexer_.fail("the text is too large: split it into several");
    return tree_.make(kind, lexer_.position);
  }

  void pattern(Node& body) {
    if (at(Token::identifier)) {
      tree_.selector = takeName("a selector");
    } else if (at(Token::binary) || at(Token::bar)) {
      tree_.selector = lexer_.text;
      lexer_.next();
      declare(body.parameters, "an argument name");
    } else {
      while (at(Token::keyword)) {
        tree_.selector += lexer_.text;
        lexer_.next();
        declare(body.parameters, "an argument name");
      }
    }
    if (tree_.selector.empty()) lexer_.fail("a method begins with its selector");
  }

  void temporaries(Node& block) {
    if (at(Token::binary) && lexer_.text == "||") {  // an empty list
      lexer_.next();
      return;
    }
    if (!accept(Token::bar)) return;
    while (at(Token::identifier)) declare(block.temporaries, "a name");
    expect(Token::bar, "| after the temporaries");
  }

  void statements(Node& block, Token close) {
    while (!at(close)) {
      if (accept(Token::period)) continue;
      if (at(Token::end)) lexer_.fail("the block is not closed");
      block.parts.push_back(statement());
      if (!at(close)) expect(Token::period, "a period between two statements");
    }
  }

  Node* statement() {
    if (!at(Token::caret)) return expression();
    Node* node = make(NodeKind::answer);
    lexer_.next();
    node->value = expression();
    return node;
  }

  Node* expression() {
    const Nesting nesting(*this);
    Node* node = primary();
    if (node->kind == NodeKind::variable && at(Token::assign)) {
      lexer_.next();
      node->kind = NodeKind::assign;
      node->value = expression();
      return node;
    }
    node = keywordSend(binarySends(unarySends(node)));
    return at(Token::semicolon) ? cascade(node) : node;
  }

  // A message whose selector begins here.
  Node* send(Node* receiver) {
    Node* node = make(NodeKind::send);
    node->receiver = receiver;
    return node;
  }

  Node* unarySend(Node* receiver) {
    Node* node = send(receiver);
    node->name = takeName("a message");
    return node;
  }

  Node* unarySends(Node* receiver) {
    while (at(Token::identifier)) receiver = unarySend(receiver);
    return receiver;
  }

  bool atBinary() const { return at(Token::binary) || at(Token::bar); }

  Node* binarySend(Node* receiver) {
    Node* node = send(receiver);
    node->name = lexer_.text;
    lexer_.next();
    node->parts = {unarySends(primary())};
    return node;
  }

  Node* binarySends(Node* receiver) {
    while (atBinary()) receiver = binarySend(receiver);
    return receiver;
  }

  Node* keywordSend(Node* receiver) {
    if (!at(Token::keyword)) return receiver;
    Node* node = send(receiver);
    while (at(Token::keyword)) {
      node->name += lexer_.text;
      lexer_.next();
      node->parts.push_back(binarySends(unarySends(primary())));
    }
    return node;
  }

  Node* cascade(Node* first) {
    if (first->kind != NodeKind::send) lexer_.fail("a message is expected before ;");
    Node* node = make(NodeKind::cascade);
    node->receiver = first->receiver;
    first->receiver = nullptr;
    node->parts.push_back(first);
    while (accept(Token::semicolon)) {
      Node* message = nullptr;
      if (at(Token::identifier)) {
        message = unarySend(nullptr);
      } else if (atBinary()) {
        message = binarySend(nullptr);
      } else if (at(Token::keyword)) {
        message = keywordSend(nullptr);
      } else {
        lexer_.fail("a message is expected after ;");
      }
      node->parts.push_back(message);
    }
    return node;
  }

  Node* primary() {
    memory_.meter.charge(1);
    switch (lexer_.token) {
      case Token::identifier: {
        Node* node = make(NodeKind::variable);
        node->name = takeName("a name");
        return node;
      }
      case Token::openParen: {
        lexer_.next();
        Node* node = expression();
        expect(Token::closeParen, ")");
        return node;
      }
      case Token::openBracket:
        return block();
      case Token::braceStart:
        return brace();
      default:
        break;
    }
    Node* node = make(NodeKind::literal);
    node->literal = literalValue("an expression is expected");
    return node;
  }

  Node* block() {
    const Nesting nesting(*this);
    Node* node = make(NodeKind::block);
    lexer_.next();
    while (accept(Token::colon)) declare(node->parameters, "a parameter name");
    if (!node->parameters.empty() && !at(Token::closeBracket)) {
      if (at(Token::binary) && lexer_.text == "||") {  // end of parameters, then temporaries
        lexer_.next();
        while (at(Token::identifier)) declare(node->temporaries, "a name");
        expect(Token::bar, "| after the temporaries");
      } else {
        expect(Token::bar, "| after the parameters");
        temporaries(*node);
      }
    } else {
      temporaries(*node);
    }
    statements(*node, Token::closeBracket);
    lexer_.next();
    return node;
  }

  Node* brace() {
    const Nesting nesting(*this);
    Node* node = make(NodeKind::brace);
    lexer_.next();
    while (!at(Token::closeBrace)) {
      if (accept(Token::period)) continue;
      if (at(Token::end)) lexer_.fail("the brace is not closed");
      node->parts.push_back(expression());
      if (!at(Token::closeBrace)) expect(Token::period, "a period between two elements");
    }
    lexer_.next();
    return node;
  }

  // What a program cannot change, so that its text means the same each time it runs.
  OopType constant(OopType oop) {
    if (Object* object = memory_.find(oop)) object->invariant = true;
    return oop;
  }

  // The value of the literal that begins here; moves behind it.
  OopType literalValue(const char* otherwise) {
    OopType oop = 0;
    switch (lexer_.token) {
      case Token::integer:
        oop = integerOop(memory_, lexer_.integerValue);
        break;
      case Token::largeInteger:
        oop = parseInteger(memory_, lexer_.text, lexer_.radix);
        if (oop == 0) lexer_.fail(integerTooLarge);
        break;
      case Token::floating:
        oop = floatOop(memory_, lexer_.floatValue);
        break;
      case Token::character:
        oop = characterOop(static_cast<std::uint32_t>(lexer_.integerValue));
        break;
      case Token::string:
        oop = stringOop(memory_, lexer_.text);
        break;
      case Token::symbol:
        oop = symbolOop(memory_, lexer_.text);
        break;
      case Token::arrayStart:
        lexer_.next();
        return literalArray();
      case Token::bytesStart:
        lexer_.next();
        return literalBytes();
      default:
        lexer_.fail(otherwise);
    }
    lexer_.next();
    return constant(oop);
  }

  OopType literalElement() {
    memory_.meter.charge(1);
    tree_.weight.add(elementBytes);
    if (accept(Token::openParen)) return literalArray();
    if (accept(Token::openBracket)) return literalBytes();
    if (at(Token::identifier) || at(Token::keyword) || atBinary()) {
      std::string word = lexer_.text;
      std::size_t end = lexer_.start() + word.size();
      const bool keywords = at(Token::keyword);
      lexer_.next();
      while (keywords && at(Token::keyword) && lexer_.start() == end) {  // at:put:
        word += lexer_.text;
        end += lexer_.text.size();
        lexer_.next();
      }
      if (word == "nil") return NilOop;
      if (word == "true") return TrueOop;
      if (word == "false") return FalseOop;
      return symbolOop(memory_, word);
    }
    return literalValue("a literal is expected");
  }

  OopType literalArray() {
    const Nesting nesting(*this);
    std::vector<OopType> elements;
    ++lexer_.literalDepth;
    while (!at(Token::closeParen)) {
      if (at(Token::end)) lexer_.fail("the array is not closed");
      elements.push_back(literalElement());
    }
    --lexer_.literalDepth;
    lexer_.next();
    return constant(arrayOop(memory_, elements));
  }

  OopType literalBytes() {
    std::vector<ByteType> bytes;
    while (!at(Token::closeBracket)) {
      memory_.meter.charge(1);
      if (!at(Token::integer) || lexer_.integerValue < 0 || lexer_.integerValue > 255) {
        lexer_.fail("a byte from 0 to 255 is expected");
      }
      bytes.push_back(static_cast<ByteType>(lexer_.integerValue));
      lexer_.next();
    }
    lexer_.next();
    const OopType oop = memory_.allocate(ByteArrayClass, Impl::bytes, 0, bytes.size(), true);
    std::copy(bytes.begin(), bytes.end(), memory_.at(oop).bytes);
    return constant(oop);
  }

  Memory& memory_;
  Lexer lexer_;
  Tree& tree_;
  int depth_ = 0;
  std::size_t declared_ = 0;
};

}  // namespace

void parseText(Memory& memory, std::string_view source, Tree& tree) {
  Parser(memory, source, tree).text();
}

void parseMethod(Memory& memory, std::string_view source, Tree& tree) {
  Parser(memory, source, tree).method();
}

}  // namespace zel
