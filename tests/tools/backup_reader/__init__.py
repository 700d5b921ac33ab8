"""Reads device backups with nothing but Python's own libraries and `cryptography`.

It is the second opinion about what a backup holds, so it shares no code with the library nor with the generator.
"""
