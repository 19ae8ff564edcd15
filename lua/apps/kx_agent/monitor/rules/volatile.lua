-- monitor.rules.volatile: what changes all day on a host that is well.
-- Source: Filesystem Hierarchy Standard 3.0, sections 3.15, 3.18, 5.5, 5.10 and 5.15.
return {
  { match = "/run", ignore = true },
  { match = "/tmp", ignore = true },
  { match = "/var/cache", ignore = true },
  { match = "/var/log", ignore = true },
  { match = "/var/tmp", ignore = true },
}
