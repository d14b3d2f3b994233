"""How the tests are written: no statement chained with commas (in Python a tuple, and/or or an
assignment expression built as a statement); an assertion only observes; no test named for three
behaviours; no skip once a test body has begun. Exit 1 and one line per finding."""

import ast, os, re, subprocess, sys

ASSERTION = re.compile(r"\b(EXPECT_[A-Z_]+|ASSERT_[A-Z_]+|CHECK)\s*\(")
CHANGING_CALL = re.compile(
    r"\b(Set|Start|Stop|Restart|Write|Queue|Push|Pop|Insert|Remove|Save|Open|Close|Create|Destroy|Install|"
    r"Init|Enter|Leave|Delete|Release|Lock|Drain|Take|Advance|Sleep|Pause|Send|Receive|Free|Override|Signal|Join|"
    r"Run|Clear|Raise|Store|Append|Copy|Seed|Next|Summarise|Parse|Build|Format|Exchange|Answer|Ask|Wait|Reset|Add|"
    r"Register|Unregister)(?:[A-Z0-9_]\w*)?\s*\(")
ASSIGNMENT = re.compile(r"\+\+|--|(?<![=!<>\[])=(?![=\]])")  # not ==, !=, <=, >= nor a lambda's [=]
TEST_HEADER = re.compile(r"\bTEST(?:_F|_P)?\s*\(\s*\w+\s*,\s*(\w+)\s*\)\s*\{")
# A call or an assignment on a name, member or element: how an expression statement starts.
EXPRESSION = re.compile(r"(\+\+|--|\*|\(void\))?\s*(?!return\b|case\b|delete\b|throw\b)[A-Za-z_]\w*"
                        r"(\s*(::|\.|->)\s*~?\w+|\[[^\]]*\])*\s*(\(|\+\+|--|(<<|>>|[-+*/%&|^])?=(?!=))")


def blank(source):
    """Comments, literals and preprocessor lines as spaces, lines and columns kept."""
    pattern = r'//[^\n]*|/\*.*?\*/|"(\\.|[^"\\\n])*"|\'(\\.|[^\'\\\n])*\'|^[ \t]*#([^\n]*\\\n)*[^\n]*'
    return re.sub(pattern, lambda m: re.sub(r"[^\n]", " ", m.group(0)), source, flags=re.S | re.M)


def closing(code, at):
    """Where the bracket opened at code[at] closes."""
    depth = 0
    for index in range(at, len(code)):
        depth += (code[index] in "([{") - (code[index] in ")]}")
        if depth == 0:
            return index
    return len(code)


def is_initializer(code, at, enclosing):
    """Whether the brace at code[at] opens a list (its commas separate) rather than a block."""
    before = code[:at].rstrip()
    word = re.search(r"\w+$", before)
    if not before or (word and word.group(0) in ("else", "do", "try")):
        return False
    return (before[-1] in "=(,[" or (before[-1] == "{" and enclosing == "init") or bool(word and word.group(0) == "return")
            or bool(re.search(r"\benum\b", re.split(r"[;{}]", before)[-1]))
            or (before[-1].isalnum() or before[-1] in "_>") and not code[at - 1].isspace())


def comma_chains(code):
    """Offsets of the statements at block level that chain expressions with commas."""
    stack, start, first_comma = [], 0, None
    for at, c in enumerate(code):
        block_level = not stack or stack[-1] == "block"
        kind = ("init" if is_initializer(code, at, stack[-1] if stack else "block") else "block") if c == "{" else None
        ends = block_level and (c in ";}" or kind == "block")
        if ends and first_comma is not None:
            head = re.sub(r"^\s*((public|private|protected|default)\s*:|case\b[^:]*:)(?!:)", "", code[start:first_comma])
            initialisers = ":" in head.replace("::", "") and "?" not in head  # a constructor's
            if (EXPRESSION.match(head) and not initialisers) or re.match(r"\s*return\b", head):
                yield start + len(head) - len(head.lstrip())
        if ends:
            start, first_comma = at + 1, None
        if c in "([":
            stack.append(c)
        elif c in ")]" and stack and stack[-1] in "([":
            stack.pop()
        elif kind:
            stack.append(kind)
        elif c == "}" and stack:
            stack.pop()
        elif c == "," and block_level and first_comma is None:
            first_comma = at


def cpp_findings(source):
    code = blank(source)
    for at in comma_chains(code):
        yield at, "a statement chained with commas"
    for match in ASSERTION.finditer(code):
        arguments = code[match.end():closing(code, match.end() - 1)]
        if ASSIGNMENT.search(arguments):
            yield match.start(), "an assignment or increment inside an assertion"
        elif not re.search(r"_(DEATH|EXIT)", match.group(1)) and CHANGING_CALL.search(arguments):
            yield match.start(), "a call that changes state inside an assertion"  # a death test's runs a statement
    for match in TEST_HEADER.finditer(code):
        if len(re.findall(r"And(?=[A-Z0-9_]|$)", match.group(1))) >= 2:
            yield match.start(), "a test named for three behaviours"
        body = code[match.end():closing(code, match.end() - 1)]
        for skip in re.finditer(r"\bGTEST_SKIP\b", body):
            if re.search(r"[;}]", body[:skip.start()]):
                yield match.end() + skip.start(), "a skip after the test began"


def python_findings(source):
    tree = ast.parse(source)
    conditions = {id(node.test) for node in ast.walk(tree) if isinstance(node, (ast.If, ast.While))}
    for node in ast.walk(tree):
        if isinstance(node, ast.Expr) and isinstance(node.value, (ast.Tuple, ast.BoolOp, ast.IfExp)):
            yield node.lineno, "a tuple, and/or or conditional built as a statement"
        elif isinstance(node, ast.NamedExpr) and id(node) not in conditions:
            yield node.lineno, "an assignment inside an expression"
        elif isinstance(node, ast.FunctionDef) and node.name.startswith("test"):
            if len(re.findall(r"_and(?=_|$)", node.name)) >= 2:
                yield node.lineno, "a test named for three behaviours"
            body = node.body[1:] if ast.get_docstring(node) else node.body
            for call in (call for later in body[1:] for call in ast.walk(later)):
                if isinstance(call, ast.Call) and getattr(call.func, "attr", "") == "skipTest":
                    yield call.lineno, "a skip after the test began"


def main():
    root = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), ".."))
    listed = subprocess.run(["git", "-C", root, "ls-files", "tests", "fuzz"], capture_output=True, text=True, check=True)
    findings = 0
    for path in listed.stdout.split():
        if not path.endswith((".cpp", ".h", ".py")) or (path.endswith(".py") and not path.startswith("tests/")):
            continue
        with open(os.path.join(root, path), errors="replace") as file:
            source = file.read()
        python = path.endswith(".py")
        for at, what in python_findings(source) if python else cpp_findings(source):
            line = at if python else source.count("\n", 0, at) + 1
            print(f"{path}:{line}: {what}: {source.splitlines()[line - 1].strip()[:100]}")
            findings += 1
    print(f"test style: {findings} finding(s)")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
