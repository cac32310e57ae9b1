"""Equal circles in a square, as large as can be: proven for a few, with an honest gap for more.

Run it with `python -m examples.circle_packing`.
"""
