"""Samples of several contenders, taken in turn."""


def in_turn(contenders, rounds):
    """Calls every contender once a round, each round beginning with another one.

    contenders: {name: function that returns one sample, or a tuple of them}
    Returns {name: [what the calls returned]}.
    """
    names = list(contenders)
    samples = {name: [] for name in names}
    for number in range(rounds):
        shift = number % len(names)
        for name in names[shift:] + names[:shift]:
            samples[name].append(contenders[name]())
    return samples


def split(samples, figures):
    """{contender: [(a, b), ...]} as {figure: {contender: [a, ...]}}, for contenders that return several at once."""
    return {
        figure: {name: [values[place] for values in taken] for name, taken in samples.items()}
        for place, figure in enumerate(figures)
    }
