<?xml version="1.0"?>
<!-- Writes a C++ initialiser for each signal of the bus interface: its name and the D-Bus type codes
     of its arguments in order. -->
<xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
  <xsl:output method="text"/>
  <xsl:template match="/">
    <xsl:for-each select="/node/interface/signal">
      <xsl:text>{"</xsl:text>
      <xsl:value-of select="@name"/>
      <xsl:text>", "</xsl:text>
      <xsl:for-each select="arg"><xsl:value-of select="@type"/></xsl:for-each>
      <xsl:text>"},&#10;</xsl:text>
    </xsl:for-each>
  </xsl:template>
</xsl:stylesheet>
