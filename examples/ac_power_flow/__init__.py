"""The cheapest operation of an alternating-current power network, to proven global optimality.

Run it with `python -m examples.ac_power_flow`.
"""
