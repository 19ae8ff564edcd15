GROUPS = []
