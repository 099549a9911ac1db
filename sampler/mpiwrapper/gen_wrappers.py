#!/usr/bin/env python3
"""Writes the MPI wrappers: one C function per call of the MPI C interface,
and with a second header, of the OpenSHMEM one, in one table.

Usage: gen_wrappers.py PREPROCESSED_MPI_H CALLS_DEF OUTPUT_C [PREPROCESSED_SHMEM_H]

PREPROCESSED_MPI_H is mpi.h after the C preprocessor, so that every macro
and every conditional of the installed MPI has been settled;
PREPROCESSED_SHMEM_H is shmem.h and pshmem.h the same way. CALLS_DEF says
what is skipped and how bytes are counted (its header explains the form).
"""
import re
import sys

PROTOTYPE = re.compile(r'\bint\s+(P?MPI_\w+)\s*\(')
# OpenSHMEM declares one function a line, of any return type; the older
# names (shmalloc, start_pes, ...) have profiling twins too.
SHMEM_PROTOTYPE = re.compile(
    r'^[ \t]*(?:extern\s+)?([A-Za-z_][\w \t*]*?)[ \t]*'
    r'\b(p?(?:shmem_\w+|shmalloc|shfree|shrealloc|shmemalign|start_pes|_my_pe|_num_pes))\s*\(', re.M)


def parameters_end(text, start):
    """The index of the parenthesis that closes the one before `start`."""
    depth = 1
    i = start
    while depth:
        if text[i] == '(':
            depth += 1
        elif text[i] == ')':
            depth -= 1
        i += 1
    return i - 1


def split_parameters(text):
    parts, depth, current = [], 0, ''
    for c in text:
        if c == ',' and depth == 0:
            parts.append(current)
            current = ''
            continue
        depth += c in '(['
        depth -= c in ')]'
        current += c
    parts.append(current)
    return [' '.join(p.split()) for p in parts if p.strip()]


def parameter_name(parameter):
    names = re.findall(r'[A-Za-z_]\w*', re.sub(r'\[.*?\]', '', parameter))
    return names[-1]


def read_prototypes(path, pattern, twin):
    """Name to (return type, parameters), for the functions that have a
    profiling twin, `twin` + name."""
    text = open(path).read()
    found = {}
    for match in pattern.finditer(text):
        returns = ' '.join(match.group(1).split()) if pattern.groups > 1 else 'int'
        name = match.group(pattern.groups)
        end = parameters_end(text, match.end())
        parameters = split_parameters(text[match.end():end])
        if parameters == ['void']:
            parameters = []
        if any(p == '...' for p in parameters):
            continue
        found[name] = (returns, parameters)
    return {name: found[name] for name in found if not name.startswith(twin) and twin + name in found}


def read_rules(path):
    skips, rules = [], []
    for number, line in enumerate(open(path), 1):
        words = line.split()
        if not words or words[0].startswith('#'):
            continue
        if words[0] == 'skip' and len(words) == 2:
            skips.append(re.compile(words[1], re.IGNORECASE))
        elif words[0] == 'bytes' and len(words) == 4:
            rules.append((re.compile(words[1], re.IGNORECASE), words[2], words[3]))
        else:
            sys.exit('%s:%d: expected "skip PATTERN" or "bytes PATTERN SENT RECEIVED"' % (path, number))
    return skips, rules


def byte_expression(expression, names, buffer, ignored):
    """The C expression for one side, 0 where the buffer is MPI_IN_PLACE
    and the expression reads the arguments that MPI then ignores."""
    if expression == '-':
        return '0'
    used = set(re.findall(r'[A-Za-z_]\w*', expression)) - {'B', 'V', 'N', 'ROOT', 'sizeof'}
    missing = used - set(names)
    if missing:
        return None
    if buffer in names and used & ignored:
        return '(%s == MPI_IN_PLACE ? 0 : (%s))' % (buffer, expression)
    return '(%s)' % expression


def wrappable(path, pattern, twin, skips, what):
    prototypes = read_prototypes(path, pattern, twin)
    names = sorted(name for name in prototypes if not any(s.fullmatch(name) for s in skips))
    if len(names) < 100:
        sys.exit('only %d %s functions found in %s' % (len(names), what, path))
    return [(name, twin) + prototypes[name] for name in names]


def main():
    skips, rules = read_rules(sys.argv[2])
    calls = wrappable(sys.argv[1], PROTOTYPE, 'P', skips, 'MPI')
    shmem = len(sys.argv) > 4
    if shmem:
        calls += wrappable(sys.argv[4], SHMEM_PROTOTYPE, 'p', skips, 'OpenSHMEM')
    wrapped = [call[0] for call in calls]

    out = ['/* Written by gen_wrappers.py from mpi.h%s and calls.def; do not edit. */'
           % (', shmem.h' if shmem else ''), '#include "wrapper.h"']
    if shmem:
        out += ['#include <shmem.h>', '#include <pshmem.h>']
    out.append('')
    out.append('const char* const zw_call_names[] = {')
    out += ['    "%s",' % name for name in wrapped]
    out.append('};')
    out.append('const int zw_call_count = %d;' % len(wrapped))
    out.append('struct quorvex_mpi_figures zw_figures[%d];' % len(wrapped))
    out.append('')
    for index, (name, twin, returns, parameters) in enumerate(calls):
        names = [parameter_name(p) for p in parameters]
        sent = received = '0'
        for pattern, send_rule, receive_rule in rules:
            if pattern.fullmatch(name):
                s = byte_expression(send_rule, names, 'sendbuf', {'sendcount', 'sendtype', 'sendcounts'})
                r = byte_expression(receive_rule, names, 'recvbuf', {'recvcount', 'recvtype', 'recvcounts'})
                if s is None or r is None:
                    continue
                sent, received = s, r
                break
        call = '%s%s(%s)' % (twin, name, ', '.join(names))
        result = returns != 'void'
        out.append('ZW_EXPORT %s %s(%s)' % (returns, name, ', '.join(parameters) or 'void'))
        out.append('{')
        if result:
            out += ['    if (zw_depth)', '        return %s;' % call]
        else:
            out += ['    if (zw_depth) {', '        %s;' % call, '        return;', '    }']
        if sent != '0' or received != '0':
            out.append('    const unsigned long long zw_sent = %s;' % sent)
            out.append('    const unsigned long long zw_received = %s;' % received)
        else:
            out.append('    const unsigned long long zw_sent = 0, zw_received = 0;')
        out.append('    const unsigned long long zw_start = zw_enter();')
        constant = returns + ' const' if returns.endswith('*') else 'const ' + returns
        out.append('    %s%s;' % ('%s zw_result = ' % constant if result else '', call))
        hook = {'MPI_Init': 'zw_after_init(0, zw_result);',
                'MPI_Init_thread': 'zw_after_init(*provided, zw_result);',
                'shmem_init_thread': 'zw_after_shmem_init(*provided, zw_result);'}.get(name)
        if hook:
            out.append('    ' + hook)
        out.append('    zw_leave(%d, zw_start, zw_sent, zw_received);' % index)
        if result:
            out.append('    return zw_result;')
        out.append('}')
        out.append('')
    with open(sys.argv[3], 'w') as f:
        f.write('\n'.join(out))


if __name__ == '__main__':
    main()
