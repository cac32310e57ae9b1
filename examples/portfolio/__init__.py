"""Portfolios of twenty stocks of the S&P 500: the least risk for every return, and with few stocks in large lots.

Run it with `python -m examples.portfolio`.
"""
