"""Writes device backups from known facts about the format, for tests to open.

Nothing here shares code with the library under test: a mistake made once must not be made twice in the same way.
"""
