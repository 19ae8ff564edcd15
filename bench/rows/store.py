"""The domain store: reading it from Lua, and from C++ on one and on two threads."""

from harness.row import Group, Row


def measure_dom_get(rig):
    return rig.samples(rig.program("DomGet"), rig.pick(300_000, 1_000_000), rig.pick(5, 21))


def measure_reads(rig):
    return rig.samples(rig.program("StoreReads"), rig.pick(500_000, 2_000_000), rig.pick(5, 21))


GROUPS = [
    Group((Row("dom.get", "dom:Get from Lua, next to a bound C method with a hash look-up", "ns", must=2, aim=1.25),),
          measure_dom_get),
    Group((Row("store.one", "a read of the domain store, next to a hash table without a lock", "ns", must=2.8, aim=2),
           Row("store.two", "the same on two threads", "ns", must=6.9, aim=3)),
          measure_reads),
]
