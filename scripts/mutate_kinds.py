#!/usr/bin/env python3
"""The kinds of mutant and where they go: libclang parses each module source
with its build flags, and the Collector places every kind of mutation listed
in mutate_gen.py on the expressions and statements of the parse.
"""
import glob
import json
import os
import re
import shlex
import sys

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), ".."))
DIRS = ("app/proc/kel/udp_dpm_topo", "app/proc/kel/udp_dpm_cap")

REL = ["<", "<=", ">", ">=", "==", "!="]
ARITH = [["+", "-", "*", "/", "%"], ["&", "|", "^"], ["<<", ">>"],
         ["+=", "-=", "*=", "/=", "%="], ["&=", "|=", "^="], ["<<=", ">>="]]
LOGIC = {"&&": "||", "||": "&&"}
OPS = sorted(set(REL) | set(LOGIC) | {o for g in ARITH for o in g} | {"="}, key=len, reverse=True)
INT_KINDS = {"INT", "UINT", "LONG", "ULONG", "LONGLONG", "ULONGLONG", "SHORT", "USHORT",
             "CHAR_S", "CHAR_U", "SCHAR", "UCHAR", "ENUM"}


def cindex():
    sys.path.append("/usr/lib/python3/dist-packages")  # Debian's python3-clang-14
    import clang.cindex as ci
    for lib in ("/usr/lib/llvm-14/lib/libclang.so.1", "/usr/lib/x86_64-linux-gnu/libclang-14.so.1"):
        if os.path.exists(lib):
            ci.Config.set_library_file(lib)
            break
    return ci


def module_files():
    files = []
    for d in DIRS:
        files += sorted(glob.glob(f"{ROOT}/{d}/*.cpp") + glob.glob(f"{ROOT}/{d}/*.h"))
    return files


def compile_args(build, path):
    for e in json.load(open(os.path.join(build, "compile_commands.json"))):
        if os.path.abspath(e["file"]) == path:
            args = shlex.split(e["command"])[1:]
            out, skip = [], False
            for a in args:
                if skip:
                    skip = False
                elif a in ("-o", "-c"):
                    skip = True
                elif a != e["file"] and not a.startswith("-W"):
                    out.append(a)
            return out
    return None


class Source:
    """One file's text and the regions where macros were expanded."""

    def __init__(self, path):
        self.path = path
        self.rel = os.path.relpath(path, ROOT)
        self.text = open(path, "rb").read().decode("latin-1")
        self.macros = []  # (start, args_start, end): a mutant must lie inside args

    def add_macro(self, start, end):
        paren = self.text.find("(", start, end)
        self.macros.append((start, paren + 1 if paren >= 0 else end, end))

    def clean(self, s, e):
        """[s, e) is real text of this file: no macro, a macro's arguments, or
        one whole macro call."""
        if e <= s:
            return False
        for ms, args, me in self.macros:
            if s < me and e > ms and not (s >= args and e <= me - 1) and (s, e) != (ms, me):
                return False
        return True


class Collector:
    def __init__(self, ci):
        self.ci = ci
        self.K = ci.CursorKind
        self.sources = {p: Source(p) for p in module_files()}
        self.seen_macros = set()
        self.mutants = {}  # (file, start, end, repl) -> dict

    def add(self, src, func, kind, s, e, repl, loc=None, label=None):
        if not src.clean(s, e):
            return
        key = (src.path, s, e, repl)
        if key in self.mutants:
            return
        orig = src.text[s:e]
        if orig == repl:
            return
        at = loc if loc is not None else s
        line = src.text.count("\n", 0, at) + 1
        col = at - (src.text.rfind("\n", 0, at) + 1) + 1
        self.mutants[key] = dict(file=src.rel, func=func, kind=kind, start=s, end=e, orig=orig,
                                 repl=repl, line=line, col=col, label=label)

    def parse(self, build, path):
        args = compile_args(build, path)
        if args is None:
            return False
        tu = self.ci.Index.create().parse(
            path, args=args, options=self.ci.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
        errors = [d for d in tu.diagnostics if d.severity >= 3]
        if errors:
            sys.exit(f"mutate_gen: {path} does not parse: {errors[0]}")
        for c in tu.cursor.get_children():
            f = c.extent.start.file
            src = self.sources.get(os.path.abspath(f.name)) if f else None
            if src is None:
                continue
            if c.kind == self.K.MACRO_INSTANTIATION:
                key = (src.path, c.extent.start.offset)
                if key not in self.seen_macros:
                    self.seen_macros.add(key)
                    src.add_macro(c.extent.start.offset, c.extent.end.offset)
        for c in tu.cursor.get_children():
            f = c.extent.start.file
            src = self.sources.get(os.path.abspath(f.name)) if f else None
            if src is not None and c.kind != self.K.MACRO_INSTANTIATION:
                self.walk(src, c, None, c.spelling or "global")
        return True

    # --- helpers over the AST -------------------------------------------------
    def span(self, c):
        return c.extent.start.offset, c.extent.end.offset

    def strip(self, c):
        """The expression under implicit conversions and parentheses."""
        while c.kind in (self.K.UNEXPOSED_EXPR, self.K.PAREN_EXPR):
            ch = list(c.get_children())
            if len(ch) != 1:
                break
            c = ch[0]
        return c

    def operator_at(self, src, pos):
        """The operator token starting after blanks at pos: (start, text)."""
        while pos < len(src.text) and src.text[pos] in " \t\n":
            pos += 1
        for op in OPS:
            if src.text.startswith(op, pos):
                return pos, op
        return pos, None

    def paren_range(self, src, s):
        """Inside of the first parenthesised group after s: (open+1, close)."""
        o = src.text.find("(", s)
        depth, i = 0, o
        while i < len(src.text):
            depth += {"(": 1, ")": -1}.get(src.text[i], 0)
            if depth == 0:
                return o + 1, i
            i += 1
        return o + 1, o + 1

    # --- the walk -------------------------------------------------------------
    def walk(self, src, c, parent, func):
        K = self.K
        if c.kind in (K.FUNCTION_DECL, K.CXX_METHOD, K.FUNCTION_TEMPLATE, K.CONSTRUCTOR):
            func = c.spelling
        loc = c.extent.start
        if loc.file is None or os.path.abspath(loc.file.name) != src.path:
            return
        s, e = self.span(c)
        if c.kind == K.BINARY_OPERATOR:
            self.binary(src, func, c)
        elif c.kind == K.COMPOUND_ASSIGNMENT_OPERATOR:
            self.binary(src, func, c)
        elif c.kind == K.UNARY_OPERATOR:
            text = src.text[s:e]
            for a, b in (("++", "--"), ("--", "++")):
                if text.startswith(a):
                    self.add(src, func, "aor", s, s + 2, b)
                elif text.endswith(a):
                    self.add(src, func, "aor", e - 2, e, b)
        elif c.kind == K.INTEGER_LITERAL:
            self.literal(src, func, s, e)
        elif c.kind == K.CXX_BOOL_LITERAL_EXPR:
            text = src.text[s:e]
            if text in ("true", "false"):
                self.add(src, func, "bool", s, e, "false" if text == "true" else "true")
        elif c.kind in (K.IF_STMT, K.WHILE_STMT, K.FOR_STMT, K.DO_STMT, K.CONDITIONAL_OPERATOR):
            self.condition(src, func, c)
        if parent is not None and self.is_statement_slot(src, parent, c):
            self.statement(src, func, c)
        for ch in c.get_children():
            self.walk(src, ch, c, func)

    def binary(self, src, func, c):
        ch = list(c.get_children())
        if len(ch) != 2:
            return
        at, op = self.operator_at(src, ch[0].extent.end.offset)
        if op is None or at >= ch[1].extent.start.offset:
            return
        end = at + len(op)
        if op in REL:
            # Pointers are only compared for equality: ordering would not compile.
            pointer = any(x.type.get_canonical().kind.name in ("POINTER", "NULLPTR") for x in ch)
            for r in REL[4:] if pointer else REL:
                self.add(src, func, "ror", at, end, r)
            rhs = ch[1]
            if op in ("<", "<=", ">", ">=") and self.strip(rhs).kind != self.K.INTEGER_LITERAL:
                if rhs.type.get_canonical().kind.name in INT_KINDS:
                    rs, re_ = self.span(rhs)
                    for d in ("+", "-"):
                        self.add(src, func, "bound", rs, re_, f"({src.text[rs:re_]} {d} 1)")
        elif op in LOGIC:
            # The whole expression in parentheses: a || b && c would not pass -Wparentheses.
            s, e = self.span(c)
            (ls, le), (rs, re_) = self.span(ch[0]), self.span(ch[1])
            swapped = f"(({src.text[ls:le]}) {LOGIC[op]} ({src.text[rs:re_]}))"
            self.add(src, func, "lcr", s, e, swapped, label=f"{op}->{LOGIC[op]}", loc=at)
            for side in ch:
                self.subcondition(src, func, side)
        else:
            for group in ARITH:
                if op in group:
                    for r in group:
                        self.add(src, func, "aor", at, end, r)

    def literal(self, src, func, s, e):
        text = src.text[s:e]
        m = re.fullmatch(r"(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)", text)
        if not m:
            return
        digits, suffix = m.groups()
        value = int(digits, 0)
        for v in (value + 1, value - 1):
            body = hex(v) if digits.lower().startswith("0x") and v >= 0 else str(v)
            self.add(src, func, "lit", s, e, f"({body}{suffix})" if v < 0 else body + suffix)

    def condition(self, src, func, c):
        K = self.K
        s, e = self.span(c)
        loop = c.kind in (K.WHILE_STMT, K.FOR_STMT, K.DO_STMT)
        if c.kind == K.CONDITIONAL_OPERATOR:
            ch = list(c.get_children())
            cond = ch[0] if ch else None
        else:
            kw = src.text.rfind("while", s, e) if c.kind == K.DO_STMT else s
            lo, hi = self.paren_range(src, kw)
            if c.kind == K.FOR_STMT:
                parts = [i for i in range(lo, hi) if src.text[i] == ";"]
                if len(parts) < 2:
                    return
                lo, hi = parts[0] + 1, parts[1]
            elif ";" in src.text[lo:hi]:  # if (init; cond)
                lo = src.text.rfind(";", lo, hi) + 1
            cond = None
            for ch in c.get_children():
                cs, ce = self.span(ch)
                if ch.kind.is_expression() and cs >= lo and ce <= hi and \
                        src.text[lo:cs].strip() == "" and src.text[ce:hi].strip() == "":
                    cond = ch
        if cond is not None:
            self.subcondition(src, func, cond, loop)

    def subcondition(self, src, func, cond, loop=False):
        cs, ce = self.span(cond)
        text = src.text[cs:ce]
        inner = self.strip(cond)
        relational = inner.kind == self.K.BINARY_OPERATOR and self.is_relational(src, inner)
        if not relational:  # a negated comparison is already a ror sibling
            self.add(src, func, "cond", cs, ce, f"!({text})")
        if not loop:
            self.add(src, func, "cond", cs, ce, "true")
        self.add(src, func, "cond", cs, ce, "false")

    def is_relational(self, src, c):
        ch = list(c.get_children())
        return len(ch) == 2 and self.operator_at(src, ch[0].extent.end.offset)[1] in REL

    def is_statement_slot(self, src, parent, c):
        K = self.K
        if parent.kind == K.CASE_STMT:  # its first child is the case value
            return c != next(iter(parent.get_children()), None)
        if parent.kind in (K.COMPOUND_STMT, K.DEFAULT_STMT):
            return True
        if parent.kind in (K.IF_STMT, K.WHILE_STMT, K.FOR_STMT):
            _, close = self.paren_range(src, parent.extent.start.offset)
            return c.extent.start.offset > close
        return False

    def statement(self, src, func, c):
        K = self.K
        s, e = self.span(c)
        text = src.text[s:e]
        inner = self.strip(c)
        if inner.kind == K.CSTYLE_CAST_EXPR and text.startswith("(void)"):
            inner = self.strip(list(inner.get_children())[-1])
        if c.kind == K.DO_STMT and any(ms == s and me == e for ms, _, me in src.macros):
            self.add_drop(src, func, "call", s, e)  # a macro call such as a log line
        elif inner.kind == K.CALL_EXPR:
            self.add_drop(src, func, "call", s, e)
        elif inner.kind in (K.BINARY_OPERATOR, K.COMPOUND_ASSIGNMENT_OPERATOR):
            ch = list(inner.get_children())
            if len(ch) != 2:
                return
            op = self.operator_at(src, ch[0].extent.end.offset)[1]
            if op is None or (op not in ("=",) and inner.kind == K.BINARY_OPERATOR):
                return
            field = self.record_field(ch[0])
            self.add_drop(src, func, "field" if field else "assign", s, e)
            if field and op == "=":
                self.field_swaps(src, func, ch[0])
                rhs = self.strip(ch[1])
                while rhs.kind in (K.CXX_STATIC_CAST_EXPR, K.CSTYLE_CAST_EXPR,
                                   K.CXX_FUNCTIONAL_CAST_EXPR):
                    rhs = self.strip(list(rhs.get_children())[-1])
                if rhs.kind == K.MEMBER_REF_EXPR:
                    self.field_swaps(src, func, rhs)
        elif inner.kind == K.UNARY_OPERATOR and re.search(r"\+\+|--", text):
            self.add_drop(src, func, "assign", s, e)

    def add_drop(self, src, func, kind, s, e):
        self.add(src, func, kind, s, e, "(void)0")

    def record_field(self, lhs):
        """The field declaration when lhs names a field of a protobuf-c record."""
        lhs = self.strip(lhs)
        if lhs.kind != self.K.MEMBER_REF_EXPR or lhs.referenced is None:
            return None
        struct = lhs.referenced.semantic_parent
        names = [f.spelling for f in struct.get_children() if f.kind == self.K.FIELD_DECL]
        return lhs.referenced if names[:1] == ["base"] else None

    def field_swaps(self, src, func, ref):
        decl = ref.referenced
        if decl is None or decl.kind != self.K.FIELD_DECL:
            return
        same = [f for f in decl.semantic_parent.get_children()
                if f.kind == self.K.FIELD_DECL and f.spelling != "base" and
                f.type.get_canonical().spelling == decl.type.get_canonical().spelling]
        names = [f.spelling for f in same]
        if decl.spelling not in names:
            return
        i = names.index(decl.spelling)
        s, e = self.span(ref)
        name_at = src.text.rfind(decl.spelling, s, e)
        if name_at < 0 or name_at + len(decl.spelling) != e:
            return
        for j in (i - 1, i + 1):
            if 0 <= j < len(names):
                self.add(src, func, "field", name_at, e, names[j])
