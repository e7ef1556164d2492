#!/usr/bin/env python3
"""Unarchives the plain kinds of a keyed archive with plistlib alone and prints
them as JSON, then how many objects are the string "shared"."""
import json, plistlib, sys
a = plistlib.load(open(sys.argv[1], 'rb'))
objs = a['$objects']
assert a['$archiver'] == 'NSKeyedArchiver' and a['$version'] == 100000 and objs[0] == '$null'
# XML carries a UID as a dictionary whose only key is CF$UID, which plistlib leaves a dictionary.
def get(u):
    o = objs[u.data if isinstance(u, plistlib.UID) else u['CF$UID']]
    if not isinstance(o, dict) or '$classname' in o: return o
    cls = get(o['$class'])['$classname']
    if cls.endswith('Array'): return [get(x) for x in o['NS.objects']]
    if cls.endswith('Dictionary'): return {get(k): get(v) for k, v in zip(o['NS.keys'], o['NS.objects'])}
    return cls
print(json.dumps(get(a['$top']['root']), sort_keys=True), sum(1 for o in objs if o == 'shared'))
