-- monitor.rules.accounts: a change of who may log in, or become root, is an error.
--
-- Names without a folder count wherever they lie: the roots of containers and backups have them as well.
return {
  { match = "passwd", severity = "error" },
  { match = "shadow", severity = "error" },
  { match = "gshadow", severity = "error" },
  { match = "/etc/group", severity = "error" },
  { match = "sudoers", severity = "error" },
  { match = "sudoers.d", severity = "error" },
  { match = "authorized_keys", severity = "error" },

  -- The copies that the account tools keep follow each change of the originals; who may read them still counts.
  { match = "passwd-", watch = { "mode", "owner" } },
  { match = "shadow-", watch = { "mode", "owner" } },
  { match = "group-", watch = { "mode", "owner" } },
  { match = "gshadow-", watch = { "mode", "owner" } },
}
