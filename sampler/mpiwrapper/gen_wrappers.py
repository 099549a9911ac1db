#!/usr/bin/env python3
"""Writes the MPI wrappers: one C function per call of the MPI C interface.

Usage: gen_wrappers.py PREPROCESSED_MPI_H CALLS_DEF OUTPUT_C

PREPROCESSED_MPI_H is mpi.h after the C preprocessor, so that every macro
and every conditional of the installed MPI has been settled; CALLS_DEF says
what is skipped and how bytes are counted (its header explains the form).
"""
import re
import sys

PROTOTYPE = re.compile(r'\bint\s+(P?MPI_\w+)\s*\(')


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


def read_prototypes(path):
    text = open(path).read()
    found = {}
    for match in PROTOTYPE.finditer(text):
        name = match.group(1)
        end = parameters_end(text, match.end())
        parameters = split_parameters(text[match.end():end])
        if parameters == ['void']:
            parameters = []
        if any(p == '...' for p in parameters):
            continue
        found[name] = parameters
    return {name: parameters for name, parameters in found.items()
            if not name.startswith('P') and 'P' + name in found}


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
    used = set(re.findall(r'[A-Za-z_]\w*', expression)) - {'B', 'V', 'N', 'ROOT'}
    missing = used - set(names)
    if missing:
        return None
    if buffer in names and used & ignored:
        return '(%s == MPI_IN_PLACE ? 0 : (%s))' % (buffer, expression)
    return '(%s)' % expression


def main():
    prototypes = read_prototypes(sys.argv[1])
    skips, rules = read_rules(sys.argv[2])
    wrapped = sorted(name for name in prototypes if not any(s.fullmatch(name) for s in skips))
    if len(wrapped) < 100:
        sys.exit('only %d MPI functions found in %s' % (len(wrapped), sys.argv[1]))

    out = ['/* Written by gen_wrappers.py from mpi.h and calls.def; do not edit. */',
           '#include "wrapper.h"', '']
    out.append('const char* const zw_call_names[] = {')
    out += ['    "%s",' % name for name in wrapped]
    out.append('};')
    out.append('const int zw_call_count = %d;' % len(wrapped))
    out.append('struct quorvex_mpi_figures zw_figures[%d];' % len(wrapped))
    out.append('')
    for index, name in enumerate(wrapped):
        parameters = prototypes[name]
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
        arguments = ', '.join(names)
        out.append('int %s(%s)' % (name, ', '.join(parameters) or 'void'))
        out.append('{')
        out.append('    if (zw_depth)')
        out.append('        return P%s(%s);' % (name, arguments))
        if sent != '0' or received != '0':
            out.append('    const unsigned long long zw_sent = %s;' % sent)
            out.append('    const unsigned long long zw_received = %s;' % received)
        else:
            out.append('    const unsigned long long zw_sent = 0, zw_received = 0;')
        out.append('    const unsigned long long zw_start = zw_enter();')
        out.append('    const int zw_result = P%s(%s);' % (name, arguments))
        hook = {'MPI_Init': 'zw_after_init(0, zw_result);',
                'MPI_Init_thread': 'zw_after_init(*provided, zw_result);'}.get(name)
        if hook:
            out.append('    ' + hook)
        out.append('    zw_leave(%d, zw_start, zw_sent, zw_received);' % index)
        out.append('    return zw_result;')
        out.append('}')
        out.append('')
    with open(sys.argv[3], 'w') as f:
        f.write('\n'.join(out))


if __name__ == '__main__':
    main()
