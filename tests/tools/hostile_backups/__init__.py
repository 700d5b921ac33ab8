"""Makes backups that no device writes: each family holds cases of one kind of malice or damage.

Only the standard library and sqlite3 are needed, but for the keybags of the family of that name.
"""
