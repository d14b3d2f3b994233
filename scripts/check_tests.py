"""How the tests are written, checked on their sources, so that a failure reads plainly: no
statement chained with the comma operator; an assertion only observes, so no assignment, increment,
comma operator or call of an operation that changes state (named by its verb: Start, Set, Write...)
inside its arguments; no test named for more than two behaviours joined by "And"; and no skip
once a test body has begun. C++ (GoogleTest and the fuzz targets' CHECK) under tests/ and fuzz/;
Python under tests/, where a throw-away tuple or an and/or used as a statement, and an assignment
expression (:=) outside an if or while condition, count as the comma chains of C++. Exit 1 and one
line per finding, else 0."""

import ast
import os
import re
import subprocess
import sys

# Rewritten in a later step; until then their findings are listed but do not fail the check.
PENDING = ("tests/sntp/", "tests/net/net_test.cpp", "tests/service/", "tests/e2e/service_e2e.py",
           "tests/e2e/winerig.py")

ASSERTION = re.compile(r"\b(EXPECT_[A-Z_]+|ASSERT_[A-Z_]+|CHECK)\s*\(")
# Death tests take the statement to run as their first argument.
STATEMENT_ASSERTION = re.compile(r"_(DEATH|EXIT)\w*$")
# Operations named for the change they make; a read (Get, Find, Read, Is...) may be observed in place.
CHANGING_CALL = re.compile(
    r"(?<![\w])(Set|Start|Stop|Restart|Write|Queue|Push|Pop|Insert|Remove|Save|Load|Open|Close|Create|Destroy|"
    r"Install|Init|Enter|Leave|Delete|Release|Lock|Drain|Take|Advance|Sleep|Pause|Send|Receive|Free|Override|"
    r"Signal|Join|Run|Clear|Raise|Store|Append|Copy|Seed|Next|Summarise|Parse|Build|Format|Exchange|Answer|Ask|"
    r"Wait|Reset|Add|Put|Register|Unregister)(?=[A-Z0-9_]\w*\s*\(|\s*\()")
TEST_HEADER = re.compile(r"\bTEST(?:_F|_P)?\s*\(\s*\w+\s*,\s*(\w+)\s*\)\s*\{")
AND = re.compile(r"And(?=[A-Z0-9_]|$)")
# An assignment or an increment: '=' that is not part of ==, !=, <=, >= (nor a lambda's [=]).
ASSIGNMENT = re.compile(r"\+\+|--|(?<![=!<>\[])=(?![=\]])")
# The start of an expression statement: a call or an assignment on a name, a member or an element.
EXPRESSION_START = re.compile(
    r"^(\+\+|--|\*|\(void\))?\s*[A-Za-z_]\w*(\s*(::|\.|->)\s*~?[A-Za-z_]\w*|\[[^\]]*\])*\s*"
    r"(\(|\+\+|--|(<<|>>|[-+*/%&|^])?=(?!=))")
DECLARATION_WORDS = {"const", "constexpr", "static", "auto", "unsigned", "signed", "int", "char", "bool", "double",
                     "float", "long", "short", "void", "struct", "class", "enum", "typedef", "using", "case", "inline",
                     "extern", "volatile", "mutable", "template", "typename", "friend", "virtual", "explicit",
                     "namespace", "delete", "new", "throw", "goto"}
LABEL = re.compile(r"^\s*((public|private|protected|default)\s*:(?!:)|case\b[^:]*:(?!:))")
BLOCK_WORDS = ("else", "do", "try")


def blank(source):
    """The source with comments, literals and preprocessor lines as spaces (lines and columns kept)."""
    pattern = re.compile(r'//[^\n]*|/\*.*?\*/|R"([^(]*)\(.*?\)\1"|"(\\.|[^"\\\n])*"|\'(\\.|[^\'\\\n])*\''
                         r'|^[ \t]*#([^\n]*\\\n)*[^\n]*', re.S | re.M)
    return pattern.sub(lambda m: re.sub(r"[^\n]", " ", m.group(0)), source)


def line_of(text, at):
    return text.count("\n", 0, at) + 1


def opens_initializer(code, at, enclosing):
    """Whether the brace at code[at] opens an initializer (commas inside are lists) or a block."""
    before = code[:at].rstrip()
    if not before:
        return False
    last = before[-1]
    if last in "=(,[" or (last == "{" and enclosing == "init"):
        return True
    word = re.search(r"(\w+)$", before)
    if word and word.group(1) == "return":
        return True
    if word and word.group(1) in BLOCK_WORDS:
        return False
    statement = re.split(r"[;{}]", before)[-1]
    if re.search(r"\benum\b", statement):
        return True
    return (last.isalnum() or last in "_>") and not code[at - 1].isspace()


def comma_statements(code):
    """(offset, statement) of each statement at block level whose commas chain expressions."""
    stack, start, commas, found = [], 0, [], []

    def finish(end):
        if commas:
            statement = code[start:end]
            first = code[start:commas[0]]
            label = LABEL.match(first)
            if label:
                first = first[label.end():]
            word = re.match(r"\s*(\w+)", first)
            chained = EXPRESSION_START.match(first.strip()) and not (word and word.group(1) in DECLARATION_WORDS)
            initialiser_list = ":" in re.sub(r"::", "", first) and "?" not in first and not label
            if (chained and not initialiser_list) or (word and word.group(1) == "return"):
                found.append((start + len(statement) - len(statement.lstrip()), statement.strip()))

    for at, c in enumerate(code):
        at_block_level = not stack or stack[-1] == "block"
        if c in "([":
            stack.append(c)
        elif c in ")]":
            if stack and stack[-1] in "([":
                stack.pop()
        elif c == "{":
            kind = "init" if opens_initializer(code, at, stack[-1] if stack else "block") else "block"
            if at_block_level and kind == "block":
                finish(at)
                start, commas = at + 1, []
            stack.append(kind)
        elif c == "}":
            kind = stack.pop() if stack else "block"
            if kind == "block":
                start, commas = at + 1, []
        elif c == ";" and at_block_level:
            finish(at)
            start, commas = at + 1, []
        elif c == "," and at_block_level:
            commas.append(at)
    return found


def closing(code, at):
    """The index of the bracket that closes the one at code[at]."""
    depth = 0
    for index in range(at, len(code)):
        depth += code[index] in "([{"
        depth -= code[index] in ")]}"
        if depth == 0:
            return index
    return len(code) - 1


def grouped_commas(arguments):
    """Whether a parenthesis that groups (not one of a call) holds a comma at its own depth."""
    for match in re.finditer(r"(?<![\w\])>\s])\s*\(|(?<=[,(])\s*\(", arguments):
        at = match.end() - 1
        inner = arguments[at + 1:closing(arguments, at)]
        depth = 0
        for index, c in enumerate(inner):
            depth += c in "([{"
            depth -= c in ")]}"
            if c == "," and depth == 0:
                head = inner[:index].replace("<<", "").replace("<=", "")
                if head.count("<") <= head.count(">"):  # not a template's argument list
                    return True
    return False


def cpp_findings(path, source):
    code = blank(source)
    for at, statement in comma_statements(code):
        yield line_of(code, at), "a statement chained with commas", statement
    for match in ASSERTION.finditer(code):
        open_at = match.end() - 1
        arguments = code[open_at + 1:closing(code, open_at)]
        changing = None if STATEMENT_ASSERTION.search(match.group(1)) else CHANGING_CALL.search(arguments)
        if ASSIGNMENT.search(arguments):
            yield line_of(code, match.start()), "an assignment or increment inside an assertion", arguments.strip()
        elif grouped_commas(arguments):
            yield line_of(code, match.start()), "a comma operator inside an assertion", arguments.strip()
        elif changing:
            yield line_of(code, match.start()), f"a call that changes state ({changing.group(0)}...) inside an assertion", \
                arguments.strip()
    for match in TEST_HEADER.finditer(code):
        name = match.group(1)
        if len(AND.findall(name)) >= 2:
            yield line_of(code, match.start()), "a test named for three behaviours or more", name
        body_at = match.end() - 1
        body = code[body_at + 1:closing(code, body_at)]
        for skip in re.finditer(r"\bGTEST_SKIP\b", body):
            if re.search(r"[;}]", body[:skip.start()]):
                yield line_of(code, body_at + 1 + skip.start()), "a skip after the test began", name


def python_findings(path, source):
    tree = ast.parse(source, path)
    conditions = {id(node.test) for node in ast.walk(tree) if isinstance(node, (ast.If, ast.While))}
    for node in ast.walk(tree):
        if isinstance(node, ast.Expr) and isinstance(node.value, ast.Tuple):
            yield node.lineno, "a tuple built as a statement", ast.unparse(node)
        elif isinstance(node, ast.Expr) and isinstance(node.value, (ast.BoolOp, ast.IfExp)):
            yield node.lineno, "an and/or or a conditional used as a statement", ast.unparse(node)
        elif isinstance(node, ast.NamedExpr) and id(node) not in conditions:
            yield node.lineno, "an assignment inside an expression", ast.unparse(node)
        elif isinstance(node, ast.FunctionDef) and node.name.startswith("test"):
            if len(re.findall(r"_and(?=_|$)", node.name)) >= 2:
                yield node.lineno, "a test named for three behaviours or more", node.name
            body = node.body[1:] if ast.get_docstring(node) else node.body
            for later in body[1:]:
                for call in ast.walk(later):
                    if isinstance(call, ast.Call) and getattr(call.func, "attr", "") == "skipTest":
                        yield call.lineno, "a skip after the test began", node.name


def main():
    root = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), ".."))
    listed = subprocess.run(["git", "-C", root, "ls-files", "tests", "fuzz"], capture_output=True, text=True, check=True)
    failing = pending = 0
    for path in listed.stdout.split():
        if path.endswith((".cpp", ".h")):
            check = cpp_findings
        elif path.endswith(".py") and path.startswith("tests/"):
            check = python_findings
        else:
            continue
        with open(os.path.join(root, path), errors="replace") as source:
            findings = list(check(path, source.read()))
        later = path.startswith(PENDING)
        for line, what, text in findings:
            print(f"{'pending: ' if later else ''}{path}:{line}: {what}: {' '.join(text.split())[:120]}")
        pending += len(findings) if later else 0
        failing += 0 if later else len(findings)
    print(f"test style: {failing} finding(s), {pending} pending")
    return 1 if failing else 0


if __name__ == "__main__":
    sys.exit(main())
