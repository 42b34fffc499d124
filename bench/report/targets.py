"""What the project wants to reach, and whether this run did."""

from report.figures import table


class Target:
    """One aim: a figure that must be at least, or at most, some value."""

    is_felt = False

    def __init__(self, measure, found, least=None, most=None, unit="", why=None):
        self.measure = measure
        self.found = found
        self.least = least
        self.most = most
        self.unit = unit
        self.why = why  # nothing was found

    @property
    def met(self):
        if self.found is None:
            return None
        if self.least is not None:
            return self.found >= self.least
        return self.found <= self.most

    def as_dict(self):
        bound = {"least": self.least} if self.least is not None else {"most": self.most}
        return {"measure": self.measure, "found": self.found, "met": self.met, **bound}

    def row(self):
        wanted = f"≥ {self.least:g}" if self.least is not None else f"≤ {self.most:g}"
        missing = f"not measured: {self.why}" if self.why else "not measured"
        found = missing if self.found is None else f"{self.found:.3g}{self.unit}"
        verdict = {True: "met", False: "**not met**", None: "-"}[self.met]
        return [self.measure, found, wanted + self.unit, verdict]


class Aim(Target):
    """A target that users feel: every run ends with the list of these."""

    is_felt = True


def markdown(targets):
    return table(["measure", "found", "aim", "met?"], [target.row() for target in targets])
