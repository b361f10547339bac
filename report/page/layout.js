// What the map shows, and where: two levels of accounts below the one that is open, three where
// they are few.

const MOST_TILES = 5000;
const MOST_GROUPS = 1000;
const FEW_TILES = 300; // up to here, a third level is drawn
const HEAD_HEIGHT = 20;

// The largest `most` of these nodes, and one for all others together.
function foldRest(nodes, most, account) {
  if (nodes.length <= most) return nodes;
  nodes.sort((a, b) => b.value - a.value);
  const rest = nodes.slice(most);
  const value = rest.reduce((sum, node) => sum + node.value, 0);
  return nodes.slice(0, most).concat({ account, value, folded: rest.length });
}

// A node for each account below, and one for what is the account's own.
function childNodes(account, kind) {
  const nodes = [];
  let below = 0;
  for (const child of account.children) {
    const value = valueOf(child, kind);
    below += value;
    if (value > 0) nodes.push({ account: child, value });
  }
  const own = valueOf(account, kind) - below;
  if (own > 0 && nodes.length > 0) nodes.push({ account, value: own, own: true });
  return nodes;
}

// The largest members of all groups stay; each group folds its others.
function foldMembers(groups, most) {
  const members = groups.flatMap((group) => group.children || []);
  if (members.length <= most) return;
  members.sort((a, b) => b.value - a.value);
  const kept = new Set(members.slice(0, most));
  for (const group of groups) {
    if (!group.children) continue;
    const count = group.children.filter((node) => kept.has(node)).length;
    group.children = foldRest(group.children, count, group.account);
  }
}

function isGroup(node) {
  return !node.own && !node.folded && node.account.children.length > 0;
}

function addMembers(groups, kind) {
  for (const group of groups) {
    const members = childNodes(group.account, kind);
    if (members.length > 0) group.children = members;
  }
}

function mapNodes(account, kind) {
  const nodes = childNodes(account, kind);
  if (!nodes.some(isGroup)) return foldRest(nodes, MOST_TILES - 1, account);
  const groups = foldRest(nodes, MOST_GROUPS, account);
  addMembers(groups.filter(isGroup), kind);
  foldMembers(groups, MOST_TILES - 2 * groups.length);
  const members = groups.flatMap((group) => group.children || []);
  const inner = members.filter(isGroup);
  const third = inner.reduce((count, node) => count + node.account.children.length, 0);
  if (members.length + third <= FEW_TILES) addMembers(inner, kind);
  return groups;
}

// The nodes with their places, outer ones first.
function layOut(account, kind, width, height) {
  const tree = d3
    .hierarchy({ account, children: mapNodes(account, kind) })
    .sum((node) => (node.children ? 0 : node.value))
    .sort((a, b) => b.value - a.value);
  d3.treemap()
    .size([width, height])
    .paddingInner(2)
    .paddingOuter((node) => (node.depth > 0 ? 3 : 0))
    .paddingTop((node) => (node.depth > 0 && node.children ? HEAD_HEIGHT : 0))
    .round(true)(tree);
  return tree.descendants().slice(1);
}

function middleOf(node) {
  const y = node.children ? node.y0 + HEAD_HEIGHT / 2 : (node.y0 + node.y1) / 2;
  return [(node.x0 + node.x1) / 2, y];
}

// The nearest node in a direction, by the middles; what lies aside counts twice.
function neighbourOf(nodes, from, right, down) {
  const [x, y] = middleOf(nodes[from]);
  let best = from;
  let nearest = Infinity;
  nodes.forEach((node, index) => {
    const [otherX, otherY] = middleOf(node);
    const ahead = (otherX - x) * right + (otherY - y) * down;
    const aside = Math.abs((otherX - x) * down) + Math.abs((otherY - y) * right);
    if (ahead > 0.5 && ahead + 2 * aside < nearest) {
      nearest = ahead + 2 * aside;
      best = index;
    }
  });
  return best;
}
