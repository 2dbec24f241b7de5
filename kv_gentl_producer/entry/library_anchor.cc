// pelorin_cxp.cti is the producer core linked whole; its exported set is
// fixed by exports.map beside this file.
