#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Computes random variates and bandit choices independently of the library.

Reimplements the C library's rand_r, the variates, the minimal standard generator and the five agents. The tests compare
the library with the results.

    tests/data/vectors/sampling.py            rewrites sampling.txt and agents.txt next to this script
    tests/data/vectors/sampling.py --check    compares the files with what it would write

A file contains records: a name in brackets, then fields, each a name and values. A repeated field continues the one
before. Doubles are hexadecimal and exact. Python uses log, exp and pow of its C library; each is within one unit in the
last place, but libraries round differently. The check therefore lets doubles differ by 4 such units; everything else
must be identical.
"""

import argparse
import math
import pathlib
import random
import sys

FOLDER = pathlib.Path(__file__).resolve().parent
LAST_PLACES = 4  # units in the last place by which a double may differ on another platform

taken = set()  # branches of the variates that were executed


def take(branch):
    taken.add(branch)


def log(x):
    return math.log(x) if x > 0.0 else -math.inf


# rand_r of the GNU C library: three steps of a linear congruential generator give 11, 10 and 10 bits.


class RandR:
    def __init__(self, seed):
        self.seed = seed

    def draw(self):
        result = 0
        for bits in (11, 10, 10):
            self.seed = (self.seed * 1103515245 + 12345) % 2**32
            result = (result << bits) | ((self.seed >> 16) % 2**bits)
        return result


# Variates.


def random_double(rand):
    a = rand.draw() >> 5
    b = rand.draw() >> 6
    return (a * 67108864.0 + b) * 2.0**-53


def standard_exponential(rand):
    return -log(1.0 - random_double(rand))


def gauss(rand):
    while True:
        x1 = 2.0 * random_double(rand) - 1.0
        x2 = 2.0 * random_double(rand) - 1.0
        r2 = x1 * x1 + x2 * x2
        if r2 >= 1.0 or r2 == 0.0:
            take("normal: outside the circle")
            continue
        return x2 * math.sqrt(-2.0 * log(r2) / r2)


def standard_gamma(rand, shape):
    if shape == 1.0:
        take("gamma: shape of one")
        return standard_exponential(rand)
    if shape < 1.0:
        while True:
            u = random_double(rand)
            v = standard_exponential(rand)
            if u <= 1.0 - shape:
                x = u ** (1.0 / shape)
                if x <= v:
                    take("gamma: small shape, first part, accepted")
                    return x
                take("gamma: small shape, first part, rejected")
            else:
                y = -log((1.0 - u) / shape)
                x = (1.0 - shape + shape * y) ** (1.0 / shape)
                if x <= v + y:
                    take("gamma: small shape, second part, accepted")
                    return x
                take("gamma: small shape, second part, rejected")
    b = shape - 0.3333333333333333
    c = 1.0 / math.sqrt(9.0 * b)
    while True:
        while True:
            x = gauss(rand)
            v = 1.0 + c * x
            if v > 0.0:
                break
            take("gamma: cube not positive")
        v = v * v * v
        u = random_double(rand)
        if u < 1.0 - 0.0331 * (x * x * x * x):
            take("gamma: squeezed in")
            return b * v
        if log(u) < 0.5 * x * x + b * (1.0 - v + log(v)):
            take("gamma: accepted by logarithms")
            return b * v
        take("gamma: large shape, rejected")


def random_beta(rand, a, b):
    if a <= 1.0 and b <= 1.0:
        while True:
            u = random_double(rand)
            v = random_double(rand)
            x = u ** (1.0 / a)
            y = v ** (1.0 / b)
            if x + y <= 1.0:  # always, as neither u nor v reaches a half
                break
        if x + y > 0.0:
            take("beta: ratio")
            return x / (x + y)
        take("beta: logarithms")
        lx = log(u) / a
        ly = log(v) / b
        m = max(lx, ly)
        lx -= m
        ly -= m
        return math.exp(lx - log(math.exp(lx) + math.exp(ly)))
    take("beta: gammas")
    ga = standard_gamma(rand, a)
    gb = standard_gamma(rand, b)
    return ga / (ga + gb)


BRANCHES = 13  # number of take() calls above; the vectors must execute all of them


# The minimal standard generator, and the canonical double from two of its outputs.


class MinimalStandard:
    def __init__(self):
        self.state = 1

    def next(self):
        self.state = self.state * 16807 % 2147483647
        return self.state

    def canonical(self):
        first = self.next() - 1
        second = self.next() - 1
        value = (first + second * 2147483646.0) / (2147483646.0 * 2147483646.0)
        return value if value < 1.0 else math.nextafter(1.0, 0.0)


# Agents.


def highest(values):
    best = 0
    for i, value in enumerate(values):
        if value > values[best]:
            best = i
    return best


class Agent:
    def __init__(self, n, rand):
        self.n = n
        self.rand = rand
        self.count = [0] * n
        self.q = [0.0] * n

    def update(self, action, reward):
        self.count[action] += 1
        self.q[action] += (1.0 / self.count[action]) * (reward - self.q[action])

    def state(self):
        return {"count": self.count, "q": self.q}


class EpsilonGreedy(Agent):
    def __init__(self, n, rand, epsilon):
        super().__init__(n, rand)
        self.epsilon = epsilon

    def choose(self):
        r = self.rand.draw() / 2147483647.0
        if self.epsilon > r or max(self.q) <= 1e-7:
            return self.rand.draw() % self.n
        return highest(self.q)


class Softmax(Agent):
    def __init__(self, n, rand, temperature):
        super().__init__(n, rand)
        self.temperature = temperature

    def choose(self):
        if self.temperature > 0.0:
            total = 0.0
            for q in self.q:
                total += math.exp(q / self.temperature)
            shares = [math.exp(q / self.temperature) / total for q in self.q]
        else:
            shares = [1.0 / self.n] * self.n
        u = MinimalStandard().canonical()
        cumulative = 0.0
        for i, share in enumerate(shares):
            cumulative += share
            if cumulative > u:
                return i
        return self.n - 1


class MostFrequentlyUsed(Agent):
    def choose(self):
        return highest(self.count)


class Thompson(Agent):
    def __init__(self, n, rand, alpha, beta):
        super().__init__(n, rand)
        self.alpha = alpha
        self.beta = beta
        self.success = [0] * n
        self.failure = [0] * n

    def update(self, action, reward):
        if reward == 1:
            self.success[action] += 1
        else:
            self.failure[action] += 1
        super().update(action, reward)

    def choose(self):
        theta = []
        for i in range(self.n):
            theta.append(random_beta(self.rand, self.success[i] + self.alpha, self.failure[i] + self.beta))
        return highest(theta)

    def state(self):
        return {**super().state(), "success": self.success, "failure": self.failure}


class Kalman(Agent):
    def __init__(self, n, rand, observation_noise, process_noise, initial_mean, initial_variance):
        super().__init__(n, rand)
        self.r = observation_noise
        self.w = process_noise
        self.mean = [initial_mean] * n
        self.variance = [initial_variance] * n

    def update(self, action, reward):
        super().update(action, reward)
        for i in range(self.n):
            p = self.variance[i] + self.w
            if i != action:
                self.variance[i] = p
            else:
                self.mean[i] = (100.0 * p * reward + self.r * self.mean[i]) / (p + self.r)
                self.variance[i] = self.r * p / (p + self.r)

    def choose(self):
        samples = []
        for mean, variance in zip(self.mean, self.variance):
            engine = MinimalStandard()
            while True:
                x = 2.0 * engine.canonical() - 1.0
                y = 2.0 * engine.canonical() - 1.0
                r2 = x * x + y * y
                if not (r2 > 1.0 or r2 == 0.0):
                    break
            samples.append(y * math.sqrt(-2.0 * log(r2) / r2) * variance + mean)
        return highest(samples)

    def state(self):
        return {**super().state(), "mean": self.mean, "variance": self.variance}


# Output.


def field(name, values, per_line):
    texts = [value.hex() if isinstance(value, float) else str(value) for value in values]
    for start in range(0, len(texts), per_line):
        yield " ".join([name] + texts[start : start + per_line])


def characters(name, values):
    """Yields lines of 100 values, one character each."""
    text = "".join(str(value) for value in values)
    assert len(text) == len(values)
    yield from field(name, [text[start : start + 100] for start in range(0, len(text), 100)], 1)


def sampling():
    series = [("uniform", random_double, [()], 200)]
    series.append(("exponential", standard_exponential, [()], 100))
    series.append(("normal", gauss, [()], 100))
    shapes = (0.05, 0.3, 0.5, 0.75, 0.999, 1.0, 1.0000000000000002, 1.5, 2.5, 10.0, 1234.5)
    series.append(("gamma", standard_gamma, [(shape,) for shape in shapes], 50))
    up_to_one = [(1.0, 1.0), (0.5, 1.0), (0.2, 0.3), (1e-4, 1e-4), (1e-4, 0.5)]
    above_one = [(1.5, 0.5), (0.5, 1.5), (1.0, 1.0000000000000002), (3.0, 7.0), (150.0, 31.0)]
    series.append(("beta", random_beta, up_to_one + above_one, 40))
    for name, variate, parameter_lists, count in series:
        for parameters in parameter_lists:
            for seed in (1, 4294967295):
                rand = RandR(seed)
                values = [variate(rand, *parameters) for _ in range(count)]
                yield f"\n[{name}]"
                yield from field("parameters", parameters, 5)
                yield from field("seed", [seed], 1)
                yield from field("values", values, 5)
                yield from field("end", [rand.seed], 1)
    assert len(taken) == BRANCHES, sorted(taken)


def agents():
    chance = random.Random(20)
    cases = [
        ("epsilon-greedy", EpsilonGreedy, 5, (0.1,), 0, 1),
        ("epsilon-greedy", EpsilonGreedy, 7, (0.0,), -2, 2),
        ("epsilon-greedy", EpsilonGreedy, 2, (1.5,), 0, 3),
        ("thompson", Thompson, 5, (1.0, 1.0), 0, 1),
        ("thompson", Thompson, 3, (0.5, 2.5), -1, 2),
    ]
    # These agents do not draw and soon settle on one action: use more, shorter runs, and let them learn random actions.
    for n in (2, 3, 5, 8, 10):
        cases.append(("softmax", Softmax, n, (0.5,), 0, 5))
        cases.append(("softmax", Softmax, n, (0.02,), -4, 4))
        cases.append(("softmax", Softmax, n, (0.0,), 0, 1))
        cases.append(("mfu", MostFrequentlyUsed, n, (), 0, 9))
        cases.append(("kalman", Kalman, n, (4.0, 0.25, 0.0, 100.0), 0, 1))
        cases.append(("kalman", Kalman, n, (1.0, 30.0, 5.0, 1.0), -3, 4))
    for name, kind, n, parameters, lowest, largest in cases:
        rand = RandR(1)
        agent = kind(n, rand, *parameters)
        draws = name in ("epsilon-greedy", "thompson")
        bias = [2.0 * chance.random() for _ in range(n)]  # lower values give the action better rewards
        choices, updates, rewards = [], [], []
        for _ in range(2000 if draws else 200):
            choice = agent.choose()
            action = choice if draws else int(chance.random() * n)
            reward = lowest + int((largest - lowest + 1) * chance.random() ** bias[action])
            agent.update(action, reward)
            choices.append(choice)
            updates.append(action)
            rewards.append(reward - lowest)
        yield f"\n[{name}]"
        yield from field("actions", [n], 1)
        yield from field("parameters", parameters, 5)
        yield from field("lowest", [lowest], 1)
        yield from characters("choices", choices)
        if not draws:
            yield from characters("updates", updates)
        yield from characters("rewards", rewards)
        for key, values in agent.state().items():
            yield from field(key, values, 5)
        yield from field("end", [rand.seed], 1)


def text(lines):
    return "# Made by tests/data/vectors/sampling.py, which says how to make it anew.\n" + "\n".join(lines) + "\n"


def same(committed, made):
    if committed == made:
        return True
    try:
        a, b = float.fromhex(committed), float.fromhex(made)
    except ValueError:
        return False
    return "p" in committed and "p" in made and abs(a - b) <= LAST_PLACES * math.ulp(a)


def check(path, made):
    committed_lines = path.read_text().splitlines()
    made_lines = made.splitlines()
    if len(committed_lines) != len(made_lines):
        sys.exit(f"{path}: {len(committed_lines)} lines, not {len(made_lines)}")
    for number, (committed, new) in enumerate(zip(committed_lines, made_lines), start=1):
        old_words, new_words = committed.split(" "), new.split(" ")
        if len(old_words) != len(new_words) or not all(map(same, old_words, new_words)):
            sys.exit(f"{path}:{number}: {committed}\nnow written:     {new}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--check", action="store_true", help="compare, write nothing")
    arguments = parser.parse_args()
    for name, lines in (("sampling.txt", sampling()), ("agents.txt", agents())):
        if arguments.check:
            check(FOLDER / name, text(lines))
        else:
            (FOLDER / name).write_text(text(lines))


if __name__ == "__main__":
    main()
