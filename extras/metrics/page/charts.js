// One chart of one number over the last 15 minutes. The library draws; the caption tells the same in
// words, and arrow keys walk from second to second.

// The caption is the legend; the library's own brings styles of its own, which the page forbids.
Dygraph.PLUGINS = Dygraph.PLUGINS.filter((plugin) => plugin !== Dygraph.Plugins.Legend);

const WINDOW_MS = 15 * 60 * 1000;
const PREFIXES = [[1e12, "T"], [1e9, "G"], [1e6, "M"], [1e3, "k"]];

// 1234567 as 1.23 M, with three digits that count.
export function short(value) {
  for (const [size, prefix] of PREFIXES) {
    // 999.6 k is 1.00 M.
    if (value >= size * 0.9995) return `${(value / size).toPrecision(3)} ${prefix}`;
  }
  return value >= 100 || Number.isInteger(value) ? String(Math.round(value)) : value.toPrecision(2);
}

export function clock(milliseconds) {
  return new Date(milliseconds).toLocaleTimeString("en-GB");
}

// As short, without zeros at the end: 1.5 k, 4 M.
function tick(value) {
  const text = short(value);
  return text.includes(".") ? text.replace(/\.?0+(?=\D*$)/, "") : text;
}

function minute(date) {
  return clock(date).slice(0, 5);
}

function colour(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

export class Chart {
  // figure: an empty element; field: a column of the history.
  constructor(figure, { title, unit, field, paint }) {
    this.title = title;
    this.unit = unit;
    this.field = field;
    this.paint = paint;
    this.rows = [];
    this.chosen = null; // time of the sample that the keys have reached
    this.build(figure);
  }

  build(figure) {
    const caption = document.createElement("figcaption");
    const name = document.createElement("span");
    name.textContent = this.title;
    this.words = document.createElement("output");
    caption.append(name, this.words);
    this.plot = document.createElement("div");
    this.plot.className = "plot";
    this.plot.tabIndex = 0;
    this.plot.setAttribute("role", "img");
    figure.append(caption, this.plot);
    this.plot.addEventListener("keydown", (event) => this.onKey(event));
    this.plot.addEventListener("blur", () => this.choose(null));
    this.graph = new Dygraph(this.plot, [[new Date(), 0]], {
      labels: ["time", this.title],
      legend: "never",
      fillGraph: true,
      fillAlpha: 0.18,
      strokeWidth: 1.6,
      includeZero: true,
      interactionModel: {}, // the page scrolls under a finger
      highlightCircleSize: 4,
      axisLineWidth: 1,
      axes: {
        x: { drawGrid: false, axisLabelFormatter: minute, pixelsPerLabel: 70 },
        y: { axisLabelFormatter: tick, axisLabelWidth: 52, pixelsPerLabel: 34 },
      },
      highlightCallback: (event, time) => this.describe(time),
      unhighlightCallback: () => this.describe(this.chosen),
      ...this.colours(),
    });
  }

  colours() {
    return { colors: [colour(this.paint)], gridLineColor: colour("--line"),
      axisLineColor: colour("--line") };
  }

  repaint() {
    this.graph.updateOptions(this.colours());
  }

  // rows: all samples, [milliseconds, value], oldest first.
  show(rows, now) {
    this.rows = rows;
    const shown = rows.length ? rows.map(([time, value]) => [new Date(time), value])
      : [[new Date(now), 0]];
    const highest = rows.reduce((most, row) => Math.max(most, row[1]), 0);
    this.graph.updateOptions({ file: shown, dateWindow: [now - WINDOW_MS, now],
      valueRange: [0, highest > 0 ? highest * 1.12 : 1] });
    this.highest = highest;
    this.describe(this.chosen);
    if (this.chosen !== null) this.mark();
  }

  describe(time) {
    const row = time === null ? this.rows.at(-1) : this.rows.find(([when]) => when === +time);
    if (!row) {
      this.words.textContent = "no sample yet";
    } else if (time === null) {
      this.words.textContent =
        `now ${short(row[1])}, highest ${short(this.highest)} ${this.unit}`;
    } else {
      this.words.textContent = `${clock(row[0])}: ${short(row[1])} ${this.unit}`;
    }
    this.plot.setAttribute("aria-label", `${this.title}: ${this.words.textContent}`);
  }

  onKey(event) {
    const steps = { ArrowLeft: -1, ArrowRight: 1, PageUp: -60, PageDown: 60, Home: -Infinity,
      End: Infinity };
    if (event.key === "Escape") {
      this.choose(null);
    } else if (event.key in steps && this.rows.length) {
      event.preventDefault();
      const at = this.rows.findIndex(([time]) => time === this.chosen);
      const from = at < 0 ? this.rows.length - 1 : at;
      const to = Math.min(Math.max(from + steps[event.key], 0), this.rows.length - 1);
      this.choose(this.rows[to][0]);
    }
  }

  choose(time) {
    this.chosen = time;
    this.words.setAttribute("aria-live", time === null ? "off" : "polite");
    this.mark();
    this.describe(time);
  }

  mark() {
    const at = this.rows.findIndex(([time]) => time === this.chosen);
    if (at < 0) {
      this.chosen = null;
      this.graph.clearSelection();
    } else {
      this.graph.setSelection(at);
    }
  }
}
