#!/usr/bin/env python3
"""Lists the circles between source files of the agent and its library.

A source file depends on another when it calls a function or uses a
variable that the other defines (read from the object files with nm); a
header depends on the headers it includes.  Prints one line per circle (strongly connected group of two or
more files) that docs/architecture.md does not name, and exits 1 when there
is any.

    file_cycles.py SOURCE_DIR OBJECT_DIR...
"""
import os
import re
import subprocess
import sys


def objects(dirs):
    for d in dirs:
        for root, _, files in os.walk(d):
            for f in files:
                if f.endswith('.cpp.o'):
                    yield os.path.join(root, f)


def source_of(obj, tree):
    # CMake names an object after its source: <target>.dir/<folder>/<name>.cpp.o
    m = re.search(r'\.dir/(.*)\.o$', obj)
    rel = m.group(1) if m else obj
    for top in ('ealib', 'util'):
        if os.path.exists(os.path.join(tree, top, rel)):
            return top + '/' + rel
    return None


def symbols(obj):
    out = subprocess.run(['nm', '-C', '--defined-only', obj], capture_output=True, text=True).stdout
    defined = {l.split(' ', 2)[2] for l in out.splitlines()
               if len(l.split(' ', 2)) == 3 and l.split(' ', 2)[1] in 'TDBRV'}
    out = subprocess.run(['nm', '-C', '-u', obj], capture_output=True, text=True).stdout
    used = {l.split()[-1] if ' U ' not in l else l.split(' U ', 1)[1].strip() for l in out.splitlines()}
    return defined, used


def includes(src_dir, rel):
    path = os.path.join(src_dir, rel)
    try:
        text = open(path, encoding='utf-8', errors='replace').read()
    except OSError:
        return set()
    return set(re.findall(r'#include\s+"([^"/]+)\.h"', text))


def sccs(graph):
    index, low, stack, on, out = {}, {}, [], set(), []
    counter = [0]

    def visit(v):
        index[v] = low[v] = counter[0]
        counter[0] += 1
        stack.append(v)
        on.add(v)
        for w in graph.get(v, ()):
            if w not in index:
                visit(w)
                low[v] = min(low[v], low[w])
            elif w in on:
                low[v] = min(low[v], index[w])
        if low[v] == index[v]:
            group = []
            while True:
                w = stack.pop()
                on.discard(w)
                group.append(w)
                if w == v:
                    break
            if len(group) > 1:
                out.append(sorted(group))

    sys.setrecursionlimit(10000)
    for v in list(graph):
        if v not in index:
            visit(v)
    return out


def main():
    src_dir, obj_dirs = sys.argv[1], sys.argv[2:]
    files = {}
    for obj in objects(obj_dirs):
        rel = source_of(obj, src_dir)
        if rel is not None:
            files[rel] = symbols(obj)
    owner = {}
    for f, (defined, _) in files.items():
        for s in defined:
            owner.setdefault(s, f)
    stems = {}
    for f in files:
        stems.setdefault(os.path.splitext(os.path.basename(f))[0], f)
    graph = {f: set() for f in files}
    for f, (_, used) in files.items():
        for s in used:
            g = owner.get(s)
            if g is not None and g != f:
                graph[f].add(g)
    # headers including each other in a circle count too
    headers = {}
    for top in ('include', 'ealib', 'util'):
        for root, _, names in os.walk(os.path.join(src_dir, top)):
            for n in names:
                if n.endswith('.h'):
                    headers[os.path.splitext(n)[0]] = os.path.relpath(os.path.join(root, n), src_dir)
    for stem, rel in headers.items():
        graph[rel] = {headers[h] for h in includes(src_dir, rel) if h in headers and h != stem}
    doc = ''
    try:
        doc = open(os.path.join(src_dir, 'docs', 'architecture.md'), encoding='utf-8').read()
    except OSError:
        pass
    bad = 0
    for group in sccs(graph):
        names = [os.path.basename(g) for g in group]
        line = ' <-> '.join(names)
        if all(n in doc for n in names) and 'circle: ' + line in doc:
            print('named circle:', line)
            continue
        print('circle: ' + line)
        bad += 1
    print('%d files, %d circle(s) not named in docs/architecture.md' % (len(files), bad))
    return 1 if bad else 0


if __name__ == '__main__':
    sys.exit(main())
