"""The work of zel_bench.cpp as Python does it: reads lines "NAME CALLS", answers the seconds taken."""

import functools
import sys
import time


class Thing:
    def itself(self):
        return self


def fib(n):
    return n if n < 2 else fib(n - 1) + fib(n - 2)


def sends():
    thing = Thing()
    for _ in range(100_000):
        thing.itself()


def additions():
    n = 0
    for _ in range(100_000):
        n = n + 1
    return n


def sums():
    n = 0
    for i in range(100_000):
        n = n + 1_000_000_000
    return n


def blocks():
    block = lambda x: x
    for i in range(100_000):
        block(i)


def fib20():
    return fib(20)


def fib27():
    return fib(27)


def floats():
    x = 0.5
    for _ in range(100_000):
        x = x * 1.0001 + 0.25
    return x


def stores():
    array = [None] * 1000
    for i in range(100_000):
        array[i % 1000] = i


def sort():
    seed = 42
    numbers = []
    for _ in range(300_000):
        seed = (seed * 1309 + 13849) % 65536
        numbers.append(seed)
    return sorted(numbers, key=functools.cmp_to_key(lambda a, b: a - b))


def strings():
    text = ""
    for _ in range(10_000):
        text = text + "abc"
    return len(text)


for line in sys.stdin:
    name, calls = line.split()
    work = globals()[name]
    begin = time.perf_counter()
    for _ in range(int(calls)):
        work()
    print(time.perf_counter() - begin, flush=True)
