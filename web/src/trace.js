// A trace as a tree, and what is computed of it: rows of the waterfall, frames of the flame graph, sums by function.

// Elements as the API has them, in their order. Adds parent, children, what each took and what of that is its own.
export function readTrace(elements) {
  const open = [];
  const nodes = elements.map((element, index) => {
    const { level, start_ms, end_ms } = element;
    const node = { ...element, index, taken: Math.max(0, end_ms - start_ms), children: [], parent: undefined };
    node.label = (element.name?.startsWith('External/') && element.url) || element.name || element.call || '(no name)';
    node.entry = element.request !== undefined && element.request !== open[level - 1]?.request; // of a called application
    if (node.entry) node.label = `${element.application}: ${node.label}`;
    open.length = level;
    node.parent = open[level - 1];
    node.parent?.children.push(node);
    open[level] = node;
    return node;
  });
  for (const node of nodes) node.own = Math.max(0, node.taken - node.children.reduce((sum, child) => sum + child.taken, 0));
  return nodes;
}

// The elements with the traces of called applications inside the calls that reached them: `halves` has for a trace id what
// answered, { id, application, elements }. Clocks of two hosts differ, so each stands in the middle of its call, whose rest
// is the way there and back. Halves that call others hold theirs.
export function withCallees(elements, halves) {
  const open = new Set();
  const graft = (list, level, from, until, mark) => list.flatMap(element => {
    const at = { ...element, ...mark, level: element.level + level, start_ms: Math.min(until, element.start_ms + from), end_ms: Math.min(until, element.end_ms + from) };
    const half = element.callee && halves.get(element.callee.trace_id);
    if (!half?.elements.length || open.has(half.id)) return [at];
    at.shape = `${at.shape} ${half.id}`; // a call that holds a half is like no other
    open.add(half.id);
    const took = half.elements[0].end_ms - half.elements[0].start_ms, spare = Math.max(0, at.end_ms - at.start_ms - took);
    const inside = graft(half.elements, at.level + 1, at.start_ms + Math.round(spare / 2), at.end_ms, { application: half.application, request: half.id });
    open.delete(half.id);
    return [at, ...inside];
  });
  return graft(elements, 0, 0, Infinity, {});
}

export const takenBy = run => run.reduce((sum, node) => sum + node.taken, 0);

// Siblings that do the same and follow one another, as runs; of several parents of one shape, the runs at the same place
// are one.
function runsBelow(run) {
  const below = [];
  for (const parent of run) {
    let place = -1, shape;
    for (const child of parent.children) {
      if (place < 0 || child.shape !== shape) place++;
      shape = child.shape;
      (below[place] ??= []).push(child);
    }
  }
  return below;
}

export const keyOf = run => `${run[0].index}.${run.length}`;

// The rows that are to be seen, parents before their children: { key, run, level, below, open, unfolded }. A run is one
// row until it is unfolded into its members. `wanted`, when given, lets through the nodes of that set alone.
export function rowsOf(nodes, { closed, unfolded, wanted }) {
  const rows = [];
  const waiting = nodes.length ? [{ run: [nodes[0]], level: 0 }] : [];
  while (waiting.length) {
    const { run: whole, level } = waiting.pop();
    const run = wanted ? whole.filter(node => wanted.has(node)) : whole;
    if (!run.length) continue;
    const key = keyOf(run);
    const members = run.length > 1 && unfolded.has(key);
    const below = members ? run.map(node => [node]) : runsBelow(run);
    const open = members || !closed.has(key);
    rows.push({ key, run, level, below: below.length, open, unfolded: members });
    if (open) for (let at = below.length; at-- > 0;) waiting.push({ run: below[at], level: level + 1 });
  }
  return rows;
}

// At each level the run that took most: where looking is worth while.
export function criticalPath(nodes) {
  const path = new Set();
  for (let run = nodes.slice(0, 1); run.length;) {
    run.forEach(node => path.add(node));
    run = runsBelow(run).reduce((most, next) => (takenBy(next) > takenBy(most) ? next : most), []);
  }
  return path;
}

// The nodes with this text, and those above them.
export function search(nodes, text) {
  const needle = text.toLowerCase();
  const has = value => value && value.toLowerCase().includes(needle);
  const wanted = new Set();
  let found = 0;
  for (const node of nodes) {
    if (![node.name, node.call, node.sql, node.url, node.place].some(has)) continue;
    found++;
    for (let at = node; at && !wanted.has(at); at = at.parent) wanted.add(at);
  }
  return { wanted, found };
}

// Calls of the same function below the same callers as one frame: { label, layer, taken, own, calls, children, parent }.
export function mergedFrames(nodes) {
  const frameOf = new Map();
  const top = { label: '', children: new Map(), depth: -1 };
  for (const node of nodes) {
    const above = node.parent ? frameOf.get(node.parent) : top;
    let frame = above.children.get(node.label);
    if (!frame) {
      frame = { label: node.label, layer: node.layer, taken: 0, own: 0, calls: 0, children: new Map(), parent: above, depth: above.depth + 1 };
      above.children.set(node.label, frame);
    }
    frame.taken += node.taken;
    frame.own += node.own;
    frame.calls++;
    frameOf.set(node, frame);
  }
  return [...top.children.values()];
}

// By function: calls, own time, and time with what it called, in which a recursive call counts once.
export function sumsByFunction(nodes) {
  const sums = new Map();
  for (const node of nodes) {
    let sum = sums.get(node.label);
    if (!sum) sums.set(node.label, (sum = { label: node.label, layer: node.layer, calls: 0, own: 0, taken: 0, slowest: 0 }));
    sum.calls++;
    sum.own += node.own;
    sum.slowest = Math.max(sum.slowest, node.taken);
    node.outer = node.parent?.outer ?? new Set();
    if (!node.outer.has(node.label)) {
      sum.taken += node.taken;
      node.outer = new Set(node.outer).add(node.label);
    }
  }
  nodes.forEach(node => delete node.outer);
  return [...sums.values()].sort((a, b) => b.own - a.own);
}
