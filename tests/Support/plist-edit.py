#!/usr/bin/env python3
"""Makes with plistlib the edit each JSON line on standard input describes, and
prints "ok" when qx's output of the same edit reads back equal, else
"differs" and the output's name: the reference for `qx plist` editing."""
import base64, datetime, json, plistlib, sys
def split(p):
    out, cur, i = [], '', 0
    while i < len(p):
        if p[i] == '\\' and i + 1 < len(p) and p[i + 1] == '.': cur += '.'; i += 2; continue
        if p[i] == '.': out.append(cur); cur = ''
        else: cur += p[i]
        i += 1
    return out + [cur]
def typed(t, v):
    return {'string': lambda: v, 'integer': lambda: int(v), 'real': lambda: float(v),
            'bool': lambda: v.lower() in ('true', 'yes', '1'), 'data': lambda: base64.b64decode(v),
            'date': lambda: datetime.datetime.strptime(v, '%Y-%m-%dT%H:%M:%SZ'),
            'array': lambda: [], 'dict': lambda: {}}[t]()
for line in sys.stdin:
    e = json.loads(line)
    root = plistlib.load(open(e['original'], 'rb'))
    if e['op'] != 'none':
        comps = split(e['path'])
        parent = root
        for c in comps[:-1]: parent = parent[int(c)] if isinstance(parent, list) else parent[c]
        last = int(comps[-1]) if isinstance(parent, list) else comps[-1]
        if e['op'] == 'set': parent[last] = typed(e['type'], e['value'])
        elif e['op'] == 'remove': del parent[last]
        elif isinstance(parent, list): parent.insert(last, typed(e['type'], e['value']))
        else: parent[last] = typed(e['type'], e['value'])
    print('ok' if plistlib.load(open(e['output'], 'rb')) == root else 'differs ' + e['output'])
