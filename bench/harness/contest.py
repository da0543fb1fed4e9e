"""Contestants, rounds and what is made of them.

A row has contestants, the first of which is the subject. In each round every one of them is measured once, in fresh
processes, in an order that is rotated from round to round, so that whatever else the machine does meets them alike.
A ratio is made within a round, and the median of the rounds' ratios is what counts. What did not run has no ratio;
a row whose subject or floor did not run has failed.
"""

import os
import statistics
import time


NO_RATIO = "none: not above zero in each round"


class NotHere(Exception):
    """A peer that is not installed."""


class Row:
    def __init__(self, name, title, unit, value, contestants, floors=(), ratios=None, rounds=None, extra=()):
        self.name = name
        self.title = title
        self.unit = unit
        self.value = value              # which of the measured numbers the row compares
        self.contestants = contestants  # name: function that measures once and returns {number's name: value}
        self.floors = floors            # contestants that the row is nothing without, as the subject
        self.ratios = ratios            # (title, function of {contestant: value}); the subject to each other if None
        self.rounds = rounds            # at most that many, for rows that take long
        self.extra = extra              # other numbers that are worth a column

    @property
    def subject(self):
        return next(iter(self.contestants))

    def measure(self, rounds):
        names = list(self.contestants)
        results = {name: [] for name in names}
        absent, failures, loads = {}, {}, []
        for turn in range(min(rounds, self.rounds or rounds)):
            order = names[turn % len(names):] + names[:turn % len(names)]
            for name in order:
                if name in absent:
                    continue
                try:
                    results[name].append(self.contestants[name]())
                except NotHere as reason:
                    absent[name] = str(reason)
                except Exception as error:  # the other rows still run; the command fails at its end
                    results[name].append(None)
                    failures.setdefault(name, f"{type(error).__name__}: {error}")
            loads.append(os.getloadavg()[0])
        return Result(self, results, absent, failures, loads)


class Result:
    def __init__(self, row, results, absent, failures, loads):
        self.row = row
        self.results = results
        self.absent = absent
        self.failures = failures
        self.loads = loads

    @property
    def failed(self):
        needed = (self.row.subject, *self.row.floors)
        return bool(self.failures) or any(name in self.absent for name in needed)

    def values(self, name, number=None):
        number = number or self.row.value
        return [result[number] for result in self.results[name] if result is not None]

    def pairs(self):
        """{title: [(subject's value, other's) of each round]}, for rows that compare the subject with each other."""
        subject = self.results[self.row.subject]
        return {f"{self.row.subject} / {name}": [(mine[self.row.value], other[self.row.value])
                                                 for mine, other in zip(subject, self.results[name]) if mine and other]
                for name in (list(self.results)[1:] if self.row.ratios is None else ())}

    def indivisible(self):
        """The pairs that were measured and have no ratio: who calls too early is late by less than nothing."""
        return [title for title, pairs in self.pairs().items() if any(min(pair) <= 0 for pair in pairs)]

    def ratios(self):
        """(title, [ratio of each round]) for each pair that was measured in at least one round."""
        subject = self.results[self.row.subject]
        indivisible = self.indivisible()
        made = [(title, [mine / other for mine, other in pairs]) for title, pairs in self.pairs().items()
                if title not in indivisible]
        for title, function in self.row.ratios or ():
            rounds = []
            for turn in range(len(subject)):
                values = {name: results[turn][self.row.value] for name, results in self.results.items()
                          if len(results) > turn and results[turn]}
                try:
                    rounds.append(function(values))
                except (KeyError, ZeroDivisionError):
                    continue  # one of its parts did not run
            made.append((title, rounds))
        return [(title, rounds) for title, rounds in made if rounds]

    def as_json(self):
        return {
            "title": self.row.title, "unit": self.row.unit, "value": self.row.value, "extra": self.row.extra,
            "results": self.results, "not here": self.absent, "failed": self.failures, "load": self.loads,
            "ratios": {title: {"median": statistics.median(rounds), "rounds": rounds}
                       for title, rounds in self.ratios()},
            "without ratio": self.indivisible(),
        }


def spread(values):
    """The middle half of the values; all of them where there are few."""
    if len(values) < 4:
        return min(values), max(values)
    low, _, high = statistics.quantiles(values, n=4)
    return low, high


def number(value):
    """As short as it may be read."""
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def measured(row, name, which=None):
    """The numbers of a contestant in a report's row, of the rounds that had one."""
    return [result[which or row["value"]] for result in row["results"][name]
            if result and (which or row["value"]) in result]


def print_result(result):
    row = result.row
    print(f"\n{row.title}  [{row.name}]  load {min(result.loads):.1f} to {max(result.loads):.1f}, "
          f"{len(result.loads)} rounds")
    for name in result.results:
        if name in result.absent:
            print(f"  {name:26} not measured: {result.absent[name]}")
            continue
        if name in result.failures:
            print(f"  {name:26} FAILED: {result.failures[name]}")
        values = result.values(name)
        if not values:
            continue
        low, high = spread(values)
        extras = "".join(f"  {title} {statistics.median(result.values(name, title)):.1f}" for title in row.extra
                         if result.results[name] and title in (result.results[name][0] or {}))
        print(f"  {name:26} {statistics.median(values):12.2f} {row.unit:10} ({low:.2f} to {high:.2f}){extras}")
    for title, rounds in result.ratios():
        low, high = spread(rounds)
        print(f"  = {title:44} {statistics.median(rounds):8.2f}   ({low:.2f} to {high:.2f})")
    for title in result.indivisible():
        print(f"  = {title:44} {NO_RATIO}")


def measure_all(rows, rounds):
    results = []
    for row in rows:
        began = time.monotonic()
        result = row.measure(rounds)
        print_result(result)
        print(f"  {time.monotonic() - began:.0f} s", flush=True)
        results.append(result)
    return results
