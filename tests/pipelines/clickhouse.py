"""ClickHouse's engine within the test's process, and the statements of files for it."""

import json
import re


def statements(text):
    """Those of a file, each without its comments and its semicolon."""
    text = re.sub(r"--[^\n]*", "", text)
    return [part.strip() for part in text.split(";") if part.strip()]


class ClickHouse:
    def __init__(self, folder):
        """folder: where it keeps its data."""
        # Its threads begin when it is imported, and stay in the network namespace of then.
        from chdb.session import Session

        self._session = Session(str(folder / "data"))
        self.ask("CREATE DATABASE IF NOT EXISTS kestrel")
        self.ask("USE kestrel")

    def run(self, text):
        for statement in statements(text):
            self.ask(statement)

    def ask(self, query, **parameters):
        """Rows as tuples. parameters: the values of {name:Type} in the query."""
        for name, value in parameters.items():
            self._session.query(f"SET param_{name} = '{value}'")
        rows = str(self._session.query(query, "JSONCompactEachRow"))
        return [tuple(json.loads(row)) for row in rows.splitlines()]

    def ask_one(self, query):
        (value,), = self.ask(query)
        return value

    def close(self):
        self._session.close()
