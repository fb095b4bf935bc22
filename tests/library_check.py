#!/usr/bin/env python3
"""Checks on the built shared library: run-time dependencies, exported
symbols against the public header, imported symbols, writable data, and the
handle layout comments against the compiler's layout.

usage: library_check.py LIBRARY PUBLIC_HEADER HANDLE_HEADER POINTER_SIZE
"""
import os
import re
import subprocess
import sys
import tempfile

lib, header, handle_header, pointer_size = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
failures = []


def run(*args):
    return subprocess.run(args, check=True, capture_output=True, text=True).stdout


def check(condition, message):
    if not condition:
        failures.append(message)


# Run-time dependencies: the C library only, and the expected SONAME.
dynamic = run("readelf", "-d", lib)
needed = re.findall(r"\(NEEDED\).*\[(.+)\]", dynamic)
check(needed == ["libc.so.6"], f"NEEDED entries are {needed}, expected only libc.so.6")
check("[libKivJPEG.so.1]" in dynamic, "SONAME is not libKivJPEG.so.1")

# Exported symbols: exactly the functions and tables the public header declares.
text = open(header).read()
text = "\n".join(l for l in text.splitlines() if not l.startswith("#"))
declared_functions = set(re.findall(r"KIV_API\s+(?!extern)[\w\s\*]*?\b(\w+)\s*\(", text))
declared_tables = set(re.findall(r"KIV_API\s+extern\s+const\s+\w+\s+(\w+)\s*\[", text))
exported = {}
for line in run("nm", "-D", "--defined-only", lib).splitlines():
    parts = line.split()
    if len(parts) == 3:
        exported[parts[2]] = parts[1]
exported_functions = {name for name, kind in exported.items() if kind == "T"}
exported_objects = {name for name, kind in exported.items() if kind != "T"}
missing = sorted(declared_functions - exported_functions)
extra = sorted(exported_functions - declared_functions)
check(not missing, f"declared but not exported: {missing}")
check(not extra, f"exported but not declared: {extra}")
check(exported_objects == declared_tables,
      f"exported data {sorted(exported_objects)} differ from the tables {sorted(declared_tables)}")
check(all(exported.get(t) == "R" for t in declared_tables), "exported tables are not read-only")

# Imports: only the C library services of the platform interface; no threads.
allowed = {"memalign", "free", "strlen", "malloc_usable_size", "memcpy", "memset", "memmove",
           "creat", "creat64", "open", "open64", "read", "write", "lseek", "lseek64",
           "close", "unlink", "rename", "stat", "stat64", "mkstemp", "mkstemp64",
           "__stack_chk_fail", "__cxa_finalize", "__gmon_start__",
           "__x86_get_cpuid_feature_leaf",  # the loader's processor feature table
           "_ITM_registerTMCloneTable", "_ITM_deregisterTMCloneTable"}
imported = set()
for line in run("nm", "-D", "--undefined-only", lib).splitlines():
    imported.add(line.split()[-1].split("@")[0])
check(imported <= allowed, f"unexpected imports: {sorted(imported - allowed)}")

# No writable global data of the library's own (toolchain symbols aside).
# Tables of pointers live in .data.rel.ro, which is read-only after relocation.
toolchain = {"__dso_handle", "__TMC_END__", "completed.0", "_DYNAMIC",
             "_GLOBAL_OFFSET_TABLE_", "__bss_start", "_edata", "_end",
             "__frame_dummy_init_array_entry", "__do_global_dtors_aux_fini_array_entry"}
writable = []
for line in run("objdump", "-t", lib).splitlines():
    m = re.match(r"[0-9a-f]+\s.{7}\s(\S+)\s+[0-9a-f]+\s+(?:\S+\s+)?(\S+)$", line)
    if m and m.group(1) in (".data", ".bss") and m.group(2) not in toolchain:
        writable.append(m.group(2))
check(not writable, f"writable data: {writable}")

# Built without exceptions and RTTI: no type information, no unwinding tables
# for C++ exceptions, no personality routine.
symbols = run("nm", "-a", lib)
check(not re.search(r"\b_ZT[IS]", symbols), "type information (RTTI) is present")
check("__gxx_personality" not in symbols, "the C++ exception personality is referenced")
check(".gcc_except_table" not in run("readelf", "-S", lib), "C++ exception tables are present")

# Handle layout: every '+offset' comment of the 32-bit layout is checked
# against offsetof, compiled by the same compiler for the 32-bit target.
if pointer_size == 4:
    asserts = []
    struct = None
    pending = None
    depth = 0
    for line in open(handle_header):
        m = re.match(r"struct (\w+) \{", line)
        if m:
            struct, depth = m.group(1), 1
            continue
        if struct is None:
            continue
        depth += line.count("{") - line.count("}")
        if depth == 0:
            struct = None
            continue
        offset = re.search(r"//.*?\+(0x[0-9A-Fa-f]+|\d+)\b", line)
        field = re.match(r"\s*(?:const\s+)?[\w:]+[\s\*]+(\w+)\s*(?:\[[^\]]*\])*\s*;", line)
        if field and (offset or pending):
            value = offset.group(1) if offset else pending
            asserts.append(f"static_assert(offsetof({struct}, {field.group(1)}) == {value}, "
                           f"\"{struct}::{field.group(1)} is not at {value}\");")
            pending = None
        elif offset:
            pending = offset.group(1)
    check(len(asserts) >= 40, f"only {len(asserts)} layout comments found")
    with tempfile.NamedTemporaryFile("w", suffix=".cpp", delete=False) as f:
        f.write('#include "core/handle.h"\n' + "\n".join(asserts) + "\n")
    src_dir = os.path.dirname(os.path.dirname(handle_header))
    include_dir = os.path.join(os.path.dirname(src_dir), "include")
    result = subprocess.run([os.environ.get("CXX", "g++"), "-m32", "-std=c++20", "-fsyntax-only",
                             "-I", src_dir, "-I", include_dir, f.name],
                            capture_output=True, text=True)
    os.unlink(f.name)
    check(result.returncode == 0, "layout comments disagree:\n" + result.stderr[:3000])

for failure in failures:
    print("FAIL:", failure)
print(f"{0 if failures else 1} passed, {1 if failures else 0} failed")
sys.exit(1 if failures else 0)
