"""The rows, in the order of the table."""

from rows import archives, modules, monitor, processes, records, start, store

GROUPS = [*start.GROUPS, *modules.GROUPS, *archives.GROUPS, *processes.GROUPS, *store.GROUPS, *records.GROUPS,
          *monitor.GROUPS]
