// The waterfall: a tree of calls with their times as bars. Only the rows in sight are in the document, so that its size does
// not depend on the trace's.
import { Component } from 'preact';
import { useEffect, useLayoutEffect, useMemo, useRef, useState } from 'preact/hooks';
import { html } from '../html.js';
import { count, milliseconds } from '../format.js';
import { layerName } from '../layers.js';
import { criticalPath, rowsOf, search, takenBy } from '../trace.js';

const ROW_PX = 24;
const SPARE_ROWS = 8; // above and below what is in sight
const MOST_INDENT = 20;
const MOST_SEGMENTS = 24; // of a run's bar; with more the bar is one piece

const percent = (at, [from, until]) => 100 * (at - from) / Math.max(1e-9, until - from);

export const runLabel = run => (run.length > 1 ? `× ${count(run.length)}, ${milliseconds(takenBy(run))}` : milliseconds(run[0].taken));

const placeOf = run => (run.every(node => node.place === run[0].place) ? run[0].place : '');

function Bar({ run, span }) {
  const pieces = run.length <= MOST_SEGMENTS ? run : [{ start_ms: run[0].start_ms, end_ms: run.at(-1).end_ms }];
  return html`${pieces.map((node, at) => {
    const left = Math.max(0, percent(node.start_ms, span)), right = Math.min(100, percent(node.end_ms, span));
    if (right < 0 || left > 100) return null;
    return html`<i key=${at} class=${`layer-${run[0].layer}`} style=${{ left: `${left}%`, width: `max(2px, ${right - left}%)` }}></i>`;
  })}`;
}

// Drawn again only when something in it has changed: scrolling leaves the rows that stay in sight as they are.
class Row extends Component {
  shouldComponentUpdate(next) {
    return ['row', 'at', 'span', 'selected', 'critical'].some(name => next[name] !== this.props[name]);
  }

  render({ row, at, span, selected, critical, acts }) {
    return drawRow(row, at, span, selected, critical, acts);
  }
}

function drawRow(row, at, span, selected, critical, acts) {
  const { run, level, below, open, unfolded } = row;
  const several = run.length > 1, node = run[0], place = placeOf(run);
  const said = `${node.label}, ${runLabel(run)}, ${layerName(node.layer)}${critical ? ', on the critical path' : ''}`;
  const alone = act => event => {
    event.stopPropagation();
    acts.current[act](row);
  };
  return html`<div role="row" id=${`row-${at}`} class=${`wf-row${node.request !== undefined ? ' inside' : ''}${selected ? ' selected' : ''}${critical ? ' critical' : ''}`} aria-level=${level + 1} aria-rowindex=${at + 1}
      aria-expanded=${below ? open : undefined} aria-selected=${selected} style=${{ top: `${at * ROW_PX}px` }} onClick=${() => acts.current.select(at)}>
    <div role="gridcell" class="wf-name" style=${{ paddingLeft: `${Math.min(level, MOST_INDENT) * 12}px` }} aria-label=${said} title=${`${node.label}${node.call && node.name ? ` (${node.call})` : ''}${place ? ` at ${place}` : ''}`}>
      <span class="wf-toggle" aria-hidden="true" onClick=${alone('toggle')}>${below && !unfolded ? (open ? '▾' : '▸') : ''}</span>
      <span class="wf-label">${level > MOST_INDENT && html`<span class="dim">(${level}) </span>`}${node.label}</span>
      ${several && html`<button class="run" tabindex="-1" aria-pressed=${unfolded} title=${unfolded ? 'As one row' : 'One row for each'} onClick=${alone('unfold')}>× ${count(run.length)}</button>`}
      ${place && html`<span class="wf-place">${place.split('/').pop()}</span>`}
    </div>
    <div role="gridcell" class="wf-took">${milliseconds(takenBy(run))}</div>
    <div role="gridcell" class="wf-bar"><${Bar} run=${run} span=${span} /></div>
  </div>`;
}

// Ticks at round times, at most so many.
function ticksOf([from, until], most) {
  const rough = (until - from) / most, power = 10 ** Math.floor(Math.log10(Math.max(rough, 1e-3)));
  const step = [1, 2, 5, 10].map(factor => factor * power).find(size => size >= rough) || 1;
  const ticks = [];
  for (let at = Math.ceil(from / step) * step; at <= until; at += step) ticks.push(Math.round(at * 1000) / 1000);
  return ticks;
}

function Axis({ span, onZoom }) {
  const element = useRef();
  const [drag, setDrag] = useState();
  const timeAt = event => {
    const { left, width } = element.current.getBoundingClientRect();
    return span[0] + (span[1] - span[0]) * Math.min(1, Math.max(0, (event.clientX - left) / width));
  };
  const down = event => {
    element.current.setPointerCapture(event.pointerId);
    const at = timeAt(event);
    setDrag([at, at]);
  };
  const move = event => drag && setDrag([drag[0], timeAt(event)]);
  const up = () => {
    const [from, until] = drag ? drag.slice().sort((a, b) => a - b) : [0, 0];
    setDrag(undefined);
    if (percent(until, span) - percent(from, span) > 1) onZoom([from, until]);
  };
  const [from, until] = drag ? drag.slice().sort((a, b) => a - b) : [0, 0];
  return html`<div class="wf-axis" ref=${element} onPointerDown=${down} onPointerMove=${move} onPointerUp=${up} onDblClick=${() => onZoom()} title="Drag to zoom, double click for all">
    ${ticksOf(span, Math.max(1, Math.floor((element.current?.clientWidth ?? 500) / 70))).map(at => html`<span key=${at} style=${{ left: `${percent(at, span)}%` }}>${count(at)}<small> ms</small></span>`)}
    ${drag && html`<i class="wf-drag" style=${{ left: `${percent(from, span)}%`, width: `${percent(until, span) - percent(from, span)}%` }}></i>`}
  </div>`;
}

const toggled = (set, key) => {
  const next = new Set(set);
  if (!next.delete(key)) next.add(key);
  return next;
};

export function Waterfall({ nodes, onSelect }) {
  const whole = useMemo(() => [0, Math.max(1, ...nodes.slice(0, 1).map(node => node.end_ms))], [nodes]);
  const [span, setSpan] = useState(whole);
  const [closed, setClosed] = useState(new Set());
  const [unfolded, setUnfolded] = useState(new Set());
  const [text, setText] = useState('');
  const [top, setTop] = useState(0);
  const [height, setHeight] = useState(600);
  const body = useRef(), field = useRef();
  const { wanted, found } = useMemo(() => (text ? search(nodes, text) : {}), [nodes, text]);
  const rows = useMemo(() => rowsOf(nodes, { closed, unfolded, wanted }), [nodes, closed, unfolded, wanted]);
  const critical = useMemo(() => criticalPath(nodes), [nodes]);
  const [selected, setSelected] = useState(() => rows.findLastIndex(row => critical.has(row.run[0])));
  const at = Math.max(0, Math.min(selected, rows.length - 1));

  useLayoutEffect(() => {
    const seen = new ResizeObserver(([{ contentRect }]) => setHeight(contentRect.height));
    seen.observe(body.current);
    performance.mark('waterfall'); // how long a trace takes until it is seen
    return () => seen.disconnect();
  }, []);
  useEffect(() => onSelect(rows[at]?.run), [rows, at]);

  const zoom = next => setSpan(next ?? whole);
  const zoomBy = factor => {
    const middle = (span[0] + span[1]) / 2, half = Math.min((whole[1] - whole[0]) / 2, (span[1] - span[0]) / 2 * factor);
    const from = Math.max(whole[0], Math.min(middle - half, whole[1] - 2 * half));
    setSpan([from, from + 2 * half]);
  };
  const select = next => {
    const row = Math.max(0, Math.min(rows.length - 1, next));
    setSelected(row);
    const box = body.current, y = row * ROW_PX;
    if (y < box.scrollTop) box.scrollTop = y;
    if (y + ROW_PX > box.scrollTop + box.clientHeight) box.scrollTop = y + ROW_PX - box.clientHeight;
  };
  const toggle = row => row.below && setClosed(toggled(closed, row.key));
  const unfold = row => row.run.length > 1 && setUnfolded(toggled(unfolded, row.key));
  const acts = useRef();
  acts.current = { select, toggle, unfold };
  const parentOf = from => {
    let above = from;
    while (above > 0 && rows[above].level >= rows[from].level) above--;
    return above;
  };
  const row = rows[at], page = Math.max(1, Math.floor(height / ROW_PX) - 1);
  const keys = {
    ArrowDown: () => select(at + 1),
    ArrowUp: () => select(at - 1),
    PageDown: () => select(at + page),
    PageUp: () => select(at - page),
    Home: () => select(0),
    End: () => select(rows.length - 1),
    ArrowRight: () => (row.below && !row.open ? toggle(row) : select(at + 1)),
    ArrowLeft: () => (row.below && row.open && !row.unfolded ? toggle(row) : select(parentOf(at))),
    Enter: () => (row.run.length > 1 ? unfold(row) : toggle(row)),
    '+': () => zoomBy(1 / 2),
    '-': () => zoomBy(2),
    0: () => zoom(),
    '/': () => field.current.focus(),
  };
  const press = event => {
    if (event.ctrlKey || event.metaKey || event.altKey || !keys[event.key] || !row) return;
    event.preventDefault();
    keys[event.key]();
  };
  const first = Math.max(0, Math.floor(top / ROW_PX) - SPARE_ROWS);
  const shown = rows.slice(first, Math.ceil((top + height) / ROW_PX) + SPARE_ROWS);
  return html`<section class="waterfall" aria-label="Waterfall">
    <div class="tools">
      <input ref=${field} type="search" placeholder="Search calls, statements, files ( / )" aria-label="Search the trace" value=${text} onInput=${event => setText(event.target.value)} />
      <span class="dim" role="status">${text ? `${count(found)} of ${count(nodes.length)} match` : `${count(nodes.length)} calls, ${count(rows.length)} rows`}</span>
      <button class="quiet" onClick=${() => zoomBy(1 / 2)} aria-label="Zoom in">+</button>
      <button class="quiet" onClick=${() => zoomBy(2)} aria-label="Zoom out">−</button>
      <button class="quiet" onClick=${() => zoom()} disabled=${span === whole}>All</button>
      <button class="quiet" onClick=${() => setClosed(closed.size ? new Set() : new Set(rows.filter(entry => entry.level >= 1 && entry.below).map(entry => entry.key)))}>${closed.size ? 'Expand all' : 'Collapse all'}</button>
      <span class="dim keys">↑↓ move, ←→ close and open, Enter unfolds a run, + − 0 zoom</span>
    </div>
    <div class="wf-head"><div class="wf-name">Call</div><div class="wf-took">Took</div><${Axis} span=${span} onZoom=${zoom} /></div>
    <div class="wf-body" ref=${body} role="treegrid" tabindex="0" aria-label="Calls of the request" style=${{ height: `min(68vh, ${Math.max(3, rows.length) * ROW_PX + 2}px)` }} aria-rowcount=${rows.length} aria-activedescendant=${row && at >= first && at < first + shown.length ? `row-${at}` : undefined}
        onScroll=${event => setTop(event.target.scrollTop)} onKeyDown=${press}>
      <div class="wf-space" role="rowgroup" style=${{ height: `${rows.length * ROW_PX}px` }}>
        ${shown.map((entry, i) => html`<${Row} key=${entry.key} row=${entry} at=${first + i} span=${span} selected=${first + i === at} critical=${critical.has(entry.run[0])} acts=${acts} />`)}
      </div>
    </div>
  </section>`;
}
