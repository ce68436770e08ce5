// One request: what it was, what stands out, and where its time went, as waterfall, flame graph, functions and statements.
import { useEffect, useMemo, useState } from 'preact/hooks';
import { apiUrl, get } from '../api.js';
import { Flame } from '../charts/flame.js';
import { runLabel, Waterfall } from '../charts/waterfall.js';
import { useQuestion } from '../data.js';
import { actionName, count, duration, fullTime, milliseconds, placeText, share } from '../format.js';
import { html } from '../html.js';
import { layerName } from '../layers.js';
import { Copy, Download } from '../parts/copy.js';
import { LayerBar, LayerLegend } from '../parts/layers.js';
import { Plan } from '../parts/plan.js';
import { Scroll } from '../parts/scroll.js';
import { Sql } from '../parts/sql.js';
import { State } from '../parts/state.js';
import { address, go } from '../router.js';
import { mergedFrames, readTrace, sumsByFunction, withCallees } from '../trace.js';

const REPEATED = 5; // from so many on, the same statement stands out
const TOLD_STATEMENTS = 3;
const MOST_HALVES = 20; // of called applications that are shown inside their calls

// The elements, and with them, as they arrive, those of the called applications that the store has.
function useWithCallees(elements, related) {
  const [whole, setWhole] = useState(elements);
  useEffect(() => {
    setWhole(elements);
    const called = new Map((related ?? []).filter(({ relation, trace_id }) => relation !== 'caller' && trace_id).map(entry => [entry.trace_id, entry]));
    if (!elements?.some(({ callee }) => callee && called.has(callee.trace_id))) return undefined;
    const ending = new AbortController();
    const fetchAll = async () => {
      const halves = new Map();
      for (const [trace, { id, application }] of [...called].slice(0, MOST_HALVES)) halves.set(trace, { id, application, elements: await get(`requests/${id}/elements`, {}, ending.signal) });
      setWhole(withCallees(elements, halves));
    };
    fetchAll().catch(() => {}); // the request's own trace stands without them
    return () => ending.abort();
  }, [elements, related]);
  return whole;
}

const Fact = ({ name, children }) => html`<div><dt>${name}</dt><dd>${children}</dd></div>`;

const Stack = ({ frames }) => frames?.length > 0 && html`<h3>Stack</h3><ol class="stack">${frames.map((frame, at) => html`<li key=${at}>${frame}</li>`)}</ol>`;

const Pairs = ({ title, pairs }) => pairs.length > 0 && html`<h2>${title}</h2>
  <table class="plain"><tbody>${pairs.map(({ name, value }, at) => html`<tr key=${at}><th scope="row">${name}</th><td class="text">${value}</td></tr>`)}</tbody></table>`;

const durationOf = request => request.figures?.duration_us ?? request.duration_ms * 1000;

function Facts({ request }) {
  const { figures, left_out: left, queued_ms } = request;
  const lost = Object.entries(left ?? {}).filter(([, number]) => number > 0);
  return html`<dl class="facts">
    <${Fact} name="Took"><b>${duration(durationOf(request))}</b><//>
    <${Fact} name="Application"><a href=${address('/requests', { app: request.application })}>${request.application || '(no name)'}</a><//>
    ${request.host_name && html`<${Fact} name="Host"><a href=${address('/requests', { host: request.host_name })}>${request.host_name}</a><//>`}
    <${Fact} name="At">${fullTime(request.time)}<//>
    <${Fact} name="Status">${request.status ?? '–'}${request.has_error && html` <span class="bad">Error</span>`}<//>
    ${request.uri && html`<${Fact} name="URI">${request.method} ${request.uri}<//>`}
    <${Fact} name="Process">${request.process}<//>
    ${figures && html`<${Fact} name="Processor">${duration(figures.user_us + figures.system_us)}<//>
      <${Fact} name="Memory">${(figures.peak_memory_bytes / 1048576).toFixed(1)} MiB<//>
      <${Fact} name="Statements">${count(figures.statements)}<//>`}
    ${queued_ms > 0 && queued_ms < 600000 && html`<${Fact} name="Waited before">${milliseconds(queued_ms)}<//>`}
    ${lost.length > 0 && html`<${Fact} name="Not stored">${lost.map(([what, number]) => `${count(number)} ${what}`).join(', ')}<//>`}
  </dl>`;
}

function ErrorBox({ error }) {
  if (!error) return null;
  return html`<section class="errorbox" aria-label="Error"><h2>${error.class || 'Error'}</h2><p class="text">${error.message}</p><${Stack} frames=${Array.isArray(error.stack) ? error.stack : []} /></section>`;
}

// Statements that are repeated, or whose plan proves something: what to mend first.
function StandsOut({ request, groups, onStatements }) {
  const told = groups.filter(group => group.count >= REPEATED || group.finding).slice(0, TOLD_STATEMENTS);
  if (!told.length) return null;
  return html`<section class="standsout" aria-label="What stands out"><h2>What stands out</h2>
    <ul>${told.map((group, at) => html`<li key=${at}>
      <b>${group.count > 1 ? `× ${count(group.count)}, ` : ''}${milliseconds(group.total_ms)}</b> (${share(group.total_ms * 1000, durationOf(request))} of the time)
      ${group.place && html` at <b>${placeText(group)}</b>`}: <button class="link" onClick=${onStatements}><code>${group.kind}</code></button>
      ${group.finding && html`<div class="finding"><b>Finding</b> ${group.finding}</div>`}
      ${group.suggestion && html`<div class="finding"><b>Suggestion</b> <code>${group.suggestion}</code></div>`}</li>`)}
    </ul></section>`;
}

function Statements({ groups }) {
  if (!groups.length) return html`<p class="state">This request ran no statement that was sent.</p>`;
  return groups.map((group, at) => html`<article key=${at} class="statement">
    <h2>${group.count > 1 ? `× ${count(group.count)}, ${milliseconds(group.total_ms)} together, slowest ${milliseconds(group.slowest_ms)}` : milliseconds(group.total_ms)} <span class="dim">${group.vendor}${group.place && ` at ${placeText(group)}`}</span></h2>
    <${Sql} text=${group.count > 1 ? group.kind : group.slowest} />
    <p><${Copy} text=${() => group.slowest}>Copy the statement<//></p>
    <${Plan} plan=${group.plan} finding=${group.finding} />
    ${group.suggestion && html`<p class="finding"><b>Suggestion</b> <code>${group.suggestion}</code></p>`}
    <${Stack} frames=${Array.isArray(group.stack) ? group.stack : []} /></article>`);
}

function Functions({ nodes }) {
  const sums = useMemo(() => sumsByFunction(nodes), [nodes]);
  const whole = nodes[0]?.taken;
  return html`<${Scroll} label="Functions"><table><thead><tr><th>Function</th><th>Layer</th><th class="number">Calls</th><th class="number">Own time</th><th class="number">Share</th><th class="number">With calls</th><th class="number">Slowest</th></tr></thead>
    <tbody>${sums.slice(0, 500).map(sum => html`<tr key=${sum.label}><td class="name">${sum.label}</td><td><i class=${`swatch layer-${sum.layer}`}></i>${layerName(sum.layer)}</td><td class="number">${count(sum.calls)}</td>
      <td class="number">${milliseconds(sum.own)}</td><td class="number">${share(sum.own, whole)}</td><td class="number">${milliseconds(sum.taken)}</td><td class="number">${milliseconds(sum.slowest)}</td></tr>`)}</tbody></table><//>`;
}

// What is known of the call, or run of calls, that is selected in the waterfall.
function Chosen({ run, related }) {
  if (!run) return null;
  const node = run.find(member => member.plan) ?? run[0];
  const callee = node.callee && related.find(entry => entry.relation !== 'caller' && entry.trace_id === node.callee.trace_id);
  return html`<aside class="chosen" aria-label="The selected call">
    <h2 class="text">${node.label}</h2>
    ${node.request !== undefined && html`<p>Inside <a href=${address(`/requests/${node.request}`)}>the called application ${node.application}</a></p>`}
    ${node.name && node.call && html`<p class="dim text">${node.call}</p>`}
    <dl class="facts"><${Fact} name="Took">${runLabel(run)}<//><${Fact} name="Own time">${milliseconds(run.reduce((sum, { own }) => sum + own, 0))}<//>
      <${Fact} name="From">${milliseconds(node.start_ms)}<//><${Fact} name="Layer"><i class=${`swatch layer-${node.layer}`}></i>${layerName(node.layer)}<//></dl>
    ${node.place && html`<p>at <b class="text">${node.place}</b></p>`}
    ${node.sql && html`<${Sql} text=${run.length > 1 ? node.kind : node.sql} /><p><${Copy} text=${() => node.sql}>Copy the statement<//></p>`}
    ${node.url && html`<p class="text">${node.url}</p>`}
    ${node.callee && html`<p>Called ${callee ? html`<a href=${address(`/requests/${callee.id}`)}>${actionName(node.callee.action)}</a>` : actionName(node.callee.action)}, which took ${milliseconds(node.callee.duration_ms)}</p>`}
    <${Plan} plan=${node.plan} finding=${node.finding} />
    <${Stack} frames=${node.stack} />
  </aside>`;
}

function Related({ related }) {
  if (!related.length) return null;
  return html`<section><h2>Same transaction</h2><${Scroll} label="Actions of the same transaction"><table><tbody>${related.map(entry => html`<tr key=${entry.id}><td>${entry.relation}</td><td><a href=${address(`/requests/${entry.id}`)}>${actionName(entry.action)}</a></td>
    ${entry.host_name && html`<td class="name">${entry.host_name}</td>`}<td>${entry.application}</td><td class="number">${duration(entry.duration_ms * 1000)}</td><td class="bar"><${LayerBar} entry=${entry} /></td></tr>`)}</tbody></table><//></section>`;
}

function Tabs({ tabs, chosen, onChoose }) {
  const press = event => {
    const step = { ArrowRight: 1, ArrowLeft: -1 }[event.key];
    if (!step) return;
    const next = tabs[(tabs.findIndex(([key]) => key === chosen) + step + tabs.length) % tabs.length][0];
    onChoose(next);
    event.currentTarget.querySelector(`#tab-${next}`).focus();
  };
  return html`<div class="tabs" role="tablist" onKeyDown=${press}>${tabs.map(([key, name]) => html`<button key=${key} id=${`tab-${key}`} role="tab" aria-selected=${key === chosen} tabindex=${key === chosen ? 0 : -1} onClick=${() => onChoose(key)}>${name}</button>`)}</div>`;
}

function Whole({ request, nodes, withHalves, groups, parameters }) {
  const [run, setRun] = useState();
  const traced = nodes.length > 0;
  const tabs = [...(traced ? [['waterfall', 'Waterfall'], ['flame', 'Flame graph'], ['functions', 'Functions']] : []), ['statements', `Statements (${count(groups.length)})`], ['details', 'Details']];
  const tab = tabs.some(([key]) => key === parameters.tab) ? parameters.tab : tabs[0][0];
  const choose = next => go(address(location.pathname, { tab: next === tabs[0][0] ? '' : next }), { replace: true });
  const frames = useMemo(() => mergedFrames(nodes), [nodes]);
  return html`
    <nav class="crumbs" aria-label="Path"><a href=${address('/requests')}>Requests</a> › <a href=${address('/requests', { app: request.application })}>${request.application || '(no name)'}</a> › <span>${request.id}</span></nav>
    <div class="title"><h1 class="text">${actionName(request.action)}</h1>
      <span class="actions"><${Copy} text=${() => location.href}>Copy link<//>
        <${Download} href=${apiUrl(`requests/${request.id}`)} name=${`request-${request.id}.json`}>JSON<//>
        <${Download} href=${apiUrl(`requests/${request.id}/events`)} name=${`request-${request.id}.trace.json`}>Trace Event<//></span></div>
    <${Facts} request=${request} />
    <div class="whereto"><${LayerBar} entry=${request} /><${LayerLegend} entry=${request} /></div>
    <${ErrorBox} error=${request.error} />
    <${StandsOut} request=${request} groups=${groups} onStatements=${() => choose('statements')} />
    <${Tabs} tabs=${tabs} chosen=${tab} onChoose=${choose} />
    <div role="tabpanel" aria-labelledby=${`tab-${tab}`}>
      ${!traced && tab === 'statements' && html`<p class="dim">This request has no trace: only actions that take zqs.action_tracer.action_threshold have one.</p>`}
      ${tab === 'waterfall' && html`<div class="split"><${Waterfall} key=${withHalves.length} nodes=${withHalves} onSelect=${setRun} /><${Chosen} run=${run} related=${request.related} /></div>`}
      ${tab === 'flame' && html`<${Flame} frames=${frames} label="Functions by their time below their callers." />`}
      ${tab === 'functions' && html`<${Functions} nodes=${nodes} />`}
      ${tab === 'statements' && html`<${Statements} groups=${groups} />`}
      ${tab === 'details' && html`<${Related} related=${request.related} /><${Pairs} title="Parameters" pairs=${request.parameters} /><${Pairs} title="Details" pairs=${request.details} />
        <${Pairs} title="Components" pairs=${request.components.map(({ name, duration_ms, own_ms }) => ({ name, value: `${milliseconds(duration_ms)}, own ${milliseconds(own_ms)}` }))} />
        <${Pairs} title="Outgoing calls" pairs=${request.calls.map(({ name, duration_ms }) => ({ name, value: milliseconds(duration_ms) }))} />`}
    </div>`;
}

export function Request({ id, parameters }) {
  const answers = ['', '/elements', '/statements'].map(part => useQuestion(`requests/${encodeURIComponent(id)}${part}`));
  const [request, elements, groups] = answers.map(({ data }) => data);
  const nodes = useMemo(() => (elements ? readTrace(elements) : []), [elements]);
  const whole = useWithCallees(elements, request?.related);
  const withHalves = useMemo(() => (whole && whole !== elements ? readTrace(whole) : nodes), [whole, nodes]);
  const first = answers.find(({ error }) => error) ?? answers.find(({ data }) => !data) ?? answers[0];
  return html`<${State} answer=${first}>${request && elements && groups && html`<${Whole} request=${request} nodes=${nodes} withHalves=${withHalves} groups=${groups} parameters=${parameters} />`}<//>`;
}
