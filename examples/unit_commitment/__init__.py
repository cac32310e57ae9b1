"""A day of a 24-bus power system: which units run, at what cost, prices and line flows.

Run it with `python -m examples.unit_commitment`.
"""
